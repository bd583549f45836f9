// The line that a failed assertion prints before it ends the process: the last one, and complete.
#pragma once

#include <gmock/gmock.h>

#include <string>

inline testing::Matcher<const std::string&> assertion_line(const std::string& function,
                                                           const std::string& expression) {
    const std::string line = "v9_rtmp_server: " + function + ": Assertion '" + expression + "' failed.\n";
    return testing::AnyOf(testing::Eq(line), testing::EndsWith("\n" + line));
}

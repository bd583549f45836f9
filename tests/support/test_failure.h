// What the support code throws when something that had to happen did not; the test ends there and the text
// says what was awaited and what came instead.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

struct TestFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What a system call returned, unless it failed; the name is for the reader.
inline int checked(int result, const char* call) {
    if (result < 0) {
        throw TestFailure(std::string(call) + ": " + std::strerror(errno));
    }
    return result;
}

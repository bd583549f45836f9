// Every test runs in namespaces of its own process; listing the tests needs none.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/private_namespaces.h"

namespace {

// The injector stands before AddressSanitizer's own interceptors, and passes on to them.
void allow_an_injector_before_the_sanitizer() {
    const char* const given = std::getenv("ASAN_OPTIONS");
    const std::string options = std::string(given != nullptr ? given : "") + ":verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", options.c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    // GoogleTest takes its arguments out of argv; a second start of this program needs them all.
    std::vector<char*> all_arguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        enter_private_namespaces(all_arguments.data());
    }
    allow_an_injector_before_the_sanitizer();
    return RUN_ALL_TESTS();
}

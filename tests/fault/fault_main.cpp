// Every test process runs in its own namespaces. Listing the tests needs none.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/private_namespaces.h"

namespace {

// The injector precedes AddressSanitizer's interceptors and calls them.
void allow_an_injector_before_the_sanitizer() {
    const char* const given = std::getenv("ASAN_OPTIONS");
    const std::string options = std::string(given != nullptr ? given : "") + ":verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", options.c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    // GoogleTest removes its arguments from argv, but a second start of this program needs them all.
    std::vector<char*> all_arguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        enter_private_namespaces(all_arguments.data());
    }
    allow_an_injector_before_the_sanitizer();
    return RUN_ALL_TESTS();
}

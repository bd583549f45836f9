// main of the tests that run in namespaces of their own process; listing them needs none.
#include <gtest/gtest.h>

#include <vector>

#include "tests/support/private_namespaces.h"

int main(int argc, char** argv) {
    // GoogleTest takes its arguments out of argv; a second start of this program needs them all.
    std::vector<char*> all_arguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        enter_private_namespaces(all_arguments.data());
    }
    return RUN_ALL_TESTS();
}

// The main function of tests that run in private namespaces. Listing the tests needs none.
#include <gtest/gtest.h>

#include <vector>

#include "tests/support/private_namespaces.h"

int main(int argc, char** argv) {
    // GoogleTest removes its arguments from argv, but a second start of this program needs them all.
    std::vector<char*> all_arguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        enter_private_namespaces(all_arguments.data());
    }
    return RUN_ALL_TESTS();
}

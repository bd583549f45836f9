// Every end-to-end test runs in namespaces of its own process; listing the tests needs none.
#include "tests/support/private_namespaces.h"

#include <gtest/gtest.h>

#include <vector>

int main(int argc, char** argv) {
    // GoogleTest takes its arguments out of argv; a second start of this program needs them all.
    std::vector<char*> all_arguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        enter_private_namespaces(all_arguments.data());
    }
    return RUN_ALL_TESTS();
}

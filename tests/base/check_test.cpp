#include "base/check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

TEST(check, evaluates_its_expression_once_when_it_holds) {
    int evaluated = 0;
    CHECK(++evaluated == 1);
    EXPECT_EQ(evaluated, 1);
}

TEST(check_death, prints_program_function_and_expression_and_aborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const int i = 128;
    EXPECT_EXIT(CHECK(i < 128), testing::KilledBySignal(SIGABRT),
                testing::Eq("v9_rtmp_server: TestBody: Assertion 'i < 128' failed.\n"));
}

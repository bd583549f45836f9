#include "tools/v9_rtmp_ctl/output.h"

#include <gtest/gtest.h>

TEST(output, color_needs_a_terminal_and_can_be_turned_off) {
    EXPECT_TRUE(wants_color(true, false, nullptr, "xterm"));
    EXPECT_TRUE(wants_color(true, false, "", "xterm"));
    EXPECT_FALSE(wants_color(false, false, nullptr, "xterm"));
    EXPECT_FALSE(wants_color(true, true, nullptr, "xterm"));
    EXPECT_FALSE(wants_color(true, false, "1", "xterm"));
    EXPECT_FALSE(wants_color(true, false, nullptr, "dumb"));
    EXPECT_FALSE(wants_color(true, false, nullptr, ""));
    EXPECT_FALSE(wants_color(true, false, nullptr, nullptr));
}

TEST(output, only_titles_are_bold) {
    testing::internal::CaptureStdout();
    print_lines({"ID", "1"}, true, {80, true});
    print_lines({"1"}, false, {80, true});
    print_lines({"ID", "1"}, true, {80, false});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\x1b[1mID\x1b[0m\n1\n1\nID\n1\n");
}

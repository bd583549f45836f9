#include "rtmp/link_direction.h"

#include <gtest/gtest.h>

TEST(link_direction, a_window_is_full_from_its_size_on_and_never_when_it_is_zero) {
    EXPECT_FALSE(window_is_full(1000, 999));
    EXPECT_TRUE(window_is_full(1000, 1000));
    EXPECT_FALSE(window_is_full(0, 4294967295U));
}

TEST(link_direction, an_acknowledgement_carries_over_at_most_one_window) {
    EXPECT_EQ(unacked_after_acknowledgement(1000, 1000), 0U);
    EXPECT_EQ(unacked_after_acknowledgement(1000, 1700), 700U);
    EXPECT_EQ(unacked_after_acknowledgement(1000, 2000), 1000U);
    EXPECT_EQ(unacked_after_acknowledgement(1000, 500000), 1000U);
    EXPECT_EQ(unacked_after_acknowledgement(1, 3400), 1U);
}

TEST(link_direction, an_acknowledgement_that_was_only_asked_for_leaves_the_count) {
    EXPECT_EQ(unacked_after_acknowledgement(1000, 999), 999U);
    EXPECT_EQ(unacked_after_acknowledgement(0, 5000), 5000U);
}

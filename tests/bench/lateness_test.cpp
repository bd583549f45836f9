#include "bench/lateness.h"

#include <gtest/gtest.h>

namespace {

TEST(lateness, percentiles_are_exact_to_half_a_millisecond) {
    Lateness lateness;
    for (std::uint64_t ms = 1; ms <= 100; ++ms) {
        lateness.add(ms * 1000 - 1);
    }
    EXPECT_DOUBLE_EQ(lateness.percentile_ms(0.5), 50);
    EXPECT_DOUBLE_EQ(lateness.percentile_ms(0.99), 99);
    EXPECT_DOUBLE_EQ(lateness.most_ms(), 99.999);
    EXPECT_EQ(lateness.count(), 100U);
}

TEST(lateness, a_percentile_never_exceeds_the_maximum) {
    Lateness lateness;
    lateness.add(100);
    EXPECT_DOUBLE_EQ(lateness.percentile_ms(0.5), 0.1);
}

TEST(lateness, messages_later_than_the_limit_are_counted) {
    Lateness lateness;
    for (const std::uint64_t us : {100U, 249999U, 250000U, 251000U, 60000000U}) {
        lateness.add(us);
    }
    EXPECT_EQ(lateness.later_than_ms(250), 3U);
    EXPECT_EQ(lateness.later_than_ms(251), 2U);
    EXPECT_EQ(lateness.later_than_ms(9999), 1U);
    EXPECT_DOUBLE_EQ(lateness.most_ms(), 60000);
}

TEST(lateness, the_histogram_lists_every_step_that_is_not_empty) {
    Lateness lateness;
    for (const std::uint64_t us : {100U, 400U, 500U, 7499U}) {
        lateness.add(us);
    }
    const std::vector<std::pair<double, std::uint64_t>> expected = {{0.5, 2}, {1.0, 1}, {7.5, 1}};
    EXPECT_EQ(lateness.histogram(), expected);
}

TEST(lateness, without_messages_everything_is_zero) {
    const Lateness lateness;
    EXPECT_EQ(lateness.count(), 0U);
    EXPECT_EQ(lateness.later_than_ms(1), 0U);
    EXPECT_DOUBLE_EQ(lateness.percentile_ms(0.99), 0);
    EXPECT_DOUBLE_EQ(lateness.most_ms(), 0);
}

TEST(lateness, merged_counts_are_the_sum_of_both) {
    Lateness one;
    Lateness other;
    one.add(1000);
    other.add(9000);
    other.add(400000);
    one.merge(other);
    one.merge({});
    EXPECT_EQ(one.count(), 3U);
    EXPECT_EQ(one.later_than_ms(250), 1U);
    EXPECT_DOUBLE_EQ(one.most_ms(), 400);
    EXPECT_DOUBLE_EQ(one.percentile_ms(0.6), 9.5);
}

}  // namespace

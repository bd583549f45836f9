#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

#include <gtest/gtest.h>

TEST(watchdog_statistics, are_one_line_with_each_rule) {
    WatchdogLimits limits;
    limits.stalled_us.reset();
    limits.publish_from = {*parse_address_range("10.0.0.0/8")};
    WatchdogStatistics statistics = make_statistics(limits);
    statistics.updated_unix_seconds = 1760000000;
    statistics.looks = 7;
    statistics.failed_looks = 2;
    statistics.rules[DropRule::UNNAMED] = {20.0, 3, 1, 2};
    EXPECT_EQ(
        statistics_json(statistics),
        R"({"version":1,"updated_unix_seconds":1760000000,"running":true,"looks":7,"failed_looks":2,"rules":{)"
        R"("long-name":{"limit":200.0,"drops":0,"misses":0,"left":0},)"
        R"("origin":{"limit":1.0,"drops":0,"misses":0,"left":0},)"
        R"("unnamed":{"limit":20.0,"drops":3,"misses":1,"left":2},)"
        R"("contested":{"limit":15.0,"drops":0,"misses":0,"left":0},)"
        R"("silent":{"limit":30.0,"drops":0,"misses":0,"left":0},)"
        R"("stalled":{"limit":null,"drops":0,"misses":0,"left":0},)"
        R"("behind":{"limit":15.0,"drops":0,"misses":0,"left":0},)"
        R"("age":{"limit":16200.0,"drops":0,"misses":0,"left":0}}})");
    const std::optional<WatchdogStatistics> read = parse_statistics(statistics_json(statistics));
    ASSERT_TRUE(read);
    EXPECT_EQ(statistics_json(*read), statistics_json(statistics));
}

TEST(watchdog_statistics, continue_after_a_restart) {
    WatchdogStatistics earlier = make_statistics(WatchdogLimits());
    earlier.looks = 10;
    earlier.rules[DropRule::AGE].drops = 4;
    WatchdogLimits limits;
    limits.age_us.reset();
    WatchdogStatistics statistics = make_statistics(limits);
    statistics.rules[DropRule::AGE].drops = 1;
    continue_counting(earlier, statistics);
    EXPECT_EQ(statistics.looks, 10U);
    EXPECT_EQ(statistics.rules[DropRule::AGE].drops, 5U);
    EXPECT_FALSE(statistics.rules[DropRule::AGE].limit) << "the rule is off now";
}

TEST(watchdog_statistics, other_text_is_refused) {
    for (const char* const text :
         {"", "{}", "[]", R"({"version":2})", R"({"version":1,"rules":{}})", "\xff"}) {
        EXPECT_FALSE(parse_statistics(text)) << text;
    }
}

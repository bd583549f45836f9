#include "tools/v9_rtmp_ctl/selection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

TEST(selection, a_pattern_matches_whole_names) {
    struct Row {
        const char* pattern;
        const char* name;
        bool matches;
    };
    const Row rows[] = {
        {"cam1", "cam1", true},
        {"cam1", "cam12", false},
        {"cam*", "cam", true},
        {"cam*", "cam12", true},
        {"cam*", "mycam1", false},
        {"*cam*", "mycam1", true},
        {"cam?", "cam1", true},
        {"cam?", "cam", false},
        {"cam?", "cam12", false},
        {"*", "a", true},
        {"*", "", false},
        {"", "", true},
        {"", "a", false},
        {"*1*2*", "x1y2z", true},
        {"*1*2*", "x2y1z", false},
        {"a*b*c", "abbbbc", true},
        {"a*b*c", "abbbbcd", false},
        {"**", "a", true},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(matches_name(row.pattern, row.name), row.matches) << row.pattern << " " << row.name;
    }
}

TEST(selection, a_megabyte_of_name_is_matched_in_time) {
    const std::string name(1 << 20, 'a');
    EXPECT_FALSE(matches_name("*a*a*a*a*a*a*b", name));
    EXPECT_TRUE(matches_name("*a*a*a*a*a*a*", name));
}

TEST(selection, an_address_may_have_a_port_or_be_a_prefix) {
    struct Row {
        const char* range;
        const char* address;
        bool matches;
    };
    const Row rows[] = {
        {"10.0.0.1", "10.0.0.1:5", true},          {"10.0.0.1", "10.0.0.10:5", false},
        {"10.0.0.1:5", "10.0.0.1:5", true},        {"10.0.0.1:5", "10.0.0.1:50", false},
        {"10.0.0.0/8", "10.255.0.1:5", true},      {"10.0.0.0/8", "11.0.0.1:5", false},
        {"203.0.113.7/24", "203.0.113.9:1", true}, {"0.0.0.0/0", "192.0.2.1:1", true},
        {"10.0.0.1/32", "10.0.0.1:5", true},       {"0.0.0.0/0", "", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(matches_address(*parse_address_range(row.range), row.address), row.matches)
            << row.range << " " << row.address;
    }
    for (const char* text : {"", "10.0.0", "10.0.0.256", "10.0.0.0/33", "10.0.0.0/",
                             "10.0.0.1:", "10.0.0.1:65536", "10.0.0.1:5/8", "cam1", "::1"}) {
        EXPECT_EQ(parse_address_range(text), std::nullopt) << text;
    }
}

TEST(selection, one_criterion_of_each_kind_has_to_match) {
    const Connection player = *parse_connection_line("5\tcam1\tplay\t\t1\t2\t10.0.0.1:1");
    const Connection unnamed = *parse_connection_line("6\t\t\t\t1\t2\t10.0.0.1:2");
    EXPECT_TRUE(matches({}, player));
    EXPECT_TRUE(matches({{"demo", "cam*"}, {*parse_address_range("10.0.0.1")}, "play"}, player));
    EXPECT_FALSE(matches({{"demo", "cam*"}, {*parse_address_range("10.0.0.2")}, "play"}, player));
    EXPECT_FALSE(matches({{"cam1"}, {}, "publish"}, player));
    EXPECT_FALSE(matches({{}, {}, "none"}, player));
    EXPECT_TRUE(matches({{}, {}, "none"}, unnamed));
    EXPECT_TRUE(matches({{""}, {}, std::nullopt}, unnamed));
}

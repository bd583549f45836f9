#include "tools/v9_rtmp_ctl/stream_series.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/tools/observed_clients.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Key;
using testing::Not;
using testing::SizeIs;

namespace {

class series_test : public testing::Test {
  protected:
    void poll(std::uint64_t second, const std::vector<Connection>& connections) {
        history.take_in({second * ONE_SECOND_US, connections});
        series.take_in(history);
    }

    // As many publishers as there are series, of streams s0, s1 and so on.
    static std::vector<Connection> full_house(std::uint64_t received) {
        std::vector<Connection> connections;
        for (unsigned id = 0; id < StreamSeries::MAX_SERIES; ++id) {
            connections.push_back(observed_publisher(id, "s" + std::to_string(id), received + id));
        }
        return connections;
    }

    ConnectionHistory history;
    StreamSeries series;
};

constexpr std::uint64_t MUCH = 1000000;

}  // namespace

TEST_F(series_test, a_stream_has_its_own_once_it_has_carried_something) {
    poll(1, {observed_publisher(0, "cam1", StreamSeries::MIN_BYTES - 1)});
    EXPECT_THAT(series.listed(), IsEmpty());
    EXPECT_EQ(series.other().bytes_received, StreamSeries::MIN_BYTES - 1);
    poll(2, {observed_publisher(0, "cam1", StreamSeries::MIN_BYTES + 99)});
    EXPECT_EQ(series.listed().at("cam1").bytes_received, 100U);
    EXPECT_EQ(series.other().bytes_received, StreamSeries::MIN_BYTES - 1);
}

TEST_F(series_test, a_counter_continues_when_its_client_comes_back) {
    poll(1, {observed_publisher(0, "cam1", MUCH)});
    poll(2, {});
    poll(3, {observed_publisher(4, "cam1", 500)});
    EXPECT_EQ(series.listed().at("cam1").bytes_received, MUCH + 500);
}

TEST_F(series_test, names_above_the_limit_are_counted_together) {
    poll(1, full_house(MUCH));
    EXPECT_THAT(series.listed(), SizeIs(StreamSeries::MAX_SERIES));
    std::vector<Connection> more = full_house(MUCH);
    more.push_back(observed_publisher(100, "one_more", MUCH));
    poll(2, more);
    EXPECT_THAT(series.listed(), SizeIs(StreamSeries::MAX_SERIES));
    EXPECT_THAT(series.listed(), Not(Contains(Key("one_more"))));
    EXPECT_EQ(series.other().bytes_received, MUCH);
}

TEST_F(series_test, the_smallest_gives_way_to_a_name_of_twice_its_bytes) {
    poll(1, full_house(MUCH));
    std::vector<Connection> more = full_house(MUCH);
    more.push_back(observed_publisher(100, "large", 2 * MUCH));
    poll(2, more);
    EXPECT_THAT(series.listed(), Contains(Key("large")));
    EXPECT_THAT(series.listed(), Not(Contains(Key("s0"))));
    EXPECT_THAT(series.listed(), SizeIs(StreamSeries::MAX_SERIES));
    more.back() = observed_publisher(100, "large", 2 * MUCH + 7);
    poll(3, more);
    EXPECT_EQ(series.listed().at("large").bytes_received, 2 * MUCH + 7);
}

TEST_F(series_test, a_stream_that_ended_long_ago_gives_way) {
    poll(1, full_house(MUCH));
    poll(2, {});
    const std::uint64_t kept_s = StreamSeries::KEEP_US / ONE_SECOND_US;
    poll(kept_s, {observed_publisher(0, "new", MUCH)});
    EXPECT_THAT(series.listed(), Not(Contains(Key("new"))));
    poll(kept_s + 1, {observed_publisher(0, "new", MUCH + 5)});
    EXPECT_EQ(series.listed().at("new").bytes_received, 5U);
}

TEST_F(series_test, names_that_come_and_go_do_not_accumulate) {
    for (unsigned second = 1; second < 5 * StreamSeries::MAX_SERIES; ++second) {
        poll(second, {observed_publisher(second % 128, "name" + std::to_string(second), MUCH)});
    }
    EXPECT_THAT(series.listed(), SizeIs(StreamSeries::MAX_SERIES));
}

TEST_F(series_test, names_that_carry_a_little_do_not_replace_those_that_carried_as_much) {
    std::set<std::string> ever;
    poll(1, full_house(StreamSeries::MIN_BYTES - 100));
    poll(2, full_house(StreamSeries::MIN_BYTES));
    for (unsigned second = 3; second < 43; ++second) {
        std::vector<Connection> clients = full_house(StreamSeries::MIN_BYTES);
        clients.push_back(
            observed_publisher(100, "new" + std::to_string(second), StreamSeries::MIN_BYTES + 500));
        poll(second, clients);
        for (const auto& [label, totals] : series.listed()) {
            ever.insert(label);
        }
    }
    EXPECT_THAT(ever, SizeIs(StreamSeries::MAX_SERIES));
}

TEST_F(series_test, a_name_that_gave_way_needs_twice_its_bytes_to_come_back) {
    poll(1, full_house(MUCH));
    std::vector<Connection> clients = full_house(MUCH);
    clients.push_back(observed_publisher(100, "large", 2 * MUCH));
    poll(2, clients);
    ASSERT_THAT(series.listed(), Not(Contains(Key("s0"))));
    // Other names have been gone for a long time, so there is room.
    const std::uint64_t later_s = StreamSeries::KEEP_US / ONE_SECOND_US + 2;
    poll(later_s, {observed_publisher(0, "s0", 2 * MUCH - 1)});
    EXPECT_THAT(series.listed(), Not(Contains(Key("s0"))));
    poll(later_s + 1, {observed_publisher(0, "s0", 2 * MUCH)});
    EXPECT_THAT(series.listed(), Contains(Key("s0")));
}

TEST_F(series_test, a_stream_whose_last_client_has_left_gets_none) {
    std::vector<Connection> clients = full_house(MUCH);
    clients.push_back(observed_publisher(100, "one_more", MUCH));
    poll(1, clients);
    ASSERT_THAT(series.listed(), Not(Contains(Key("s9"))));
    poll(2, {});
    poll(2 + StreamSeries::KEEP_US / ONE_SECOND_US, {});
    EXPECT_THAT(series.listed(), Not(Contains(Key("s9"))));
}

TEST_F(series_test, a_stream_named_like_the_series_of_all_others_has_none_of_its_own) {
    poll(1, {observed_publisher(0, OTHER_STREAMS, MUCH)});
    EXPECT_THAT(series.listed(), IsEmpty());
    EXPECT_EQ(series.other().bytes_received, MUCH);
}

TEST(stream_label, keeps_visible_characters) {
    EXPECT_EQ(stream_label("cam1"), "cam1");
    EXPECT_EQ(stream_label("K\u00fcche \u98a8 \U0001f39e"), "K\u00fcche \u98a8 \U0001f39e");
    EXPECT_EQ(stream_label("a\tb\nc\x7f"), "a\\x09b\\x0Ac\\x7F");
    EXPECT_EQ(stream_label("\xff\xfe"), "\\xFF\\xFE");
    EXPECT_EQ(stream_label("\u202egpj"), "\\xE2\\x80\\xAEgpj");
    EXPECT_EQ(stream_label("\u200b\ufeff\u0085"), "\\xE2\\x80\\x8B\\xEF\\xBB\\xBF\\xC2\\x85");
    EXPECT_EQ(stream_label(""), "");
}

#include "tools/v9_rtmp_ctl/stream_summary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::DoubleEq;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

namespace {

Connection publisher(unsigned id, std::uint64_t received, const char* stream = "cam1") {
    Connection connection;
    connection.id = id;
    connection.stream = stream;
    connection.mode = "publish";
    connection.bytes_received = received;
    connection.address = "10.0.0." + std::to_string(id) + ":1";
    return connection;
}

Connection player(unsigned id, std::optional<double> sent_rate, const char* stream = "cam1") {
    Connection connection;
    connection.id = id;
    connection.stream = stream;
    connection.mode = "play";
    connection.sent_rate = sent_rate;
    return connection;
}

}  // namespace

TEST(stream_summary, groups_the_connections_of_each_name) {
    Connection source = publisher(2, 100);
    source.size = VideoSize{1280, 720};
    source.received_rate = 500;
    source.sent_rate = 7;  // acknowledgements are not media
    const std::vector<StreamSummary> streams =
        summarize_streams({player(0, 300.0), player(1, 200.0), source}, {}, SortKey::STREAM);
    ASSERT_EQ(streams.size(), 1U);
    EXPECT_EQ(streams[0].stream, "cam1");
    EXPECT_THAT(streams[0].publisher_id, Optional(2U));
    EXPECT_EQ(streams[0].publisher_address, "10.0.0.2:1");
    EXPECT_EQ(streams[0].players, 2U);
    EXPECT_EQ(streams[0].size, (VideoSize{1280, 720}));
    EXPECT_THAT(streams[0].in_rate, Optional(DoubleEq(500)));
    EXPECT_THAT(streams[0].out_rate, Optional(DoubleEq(500)));
    EXPECT_THAT(streams[0].rivals, IsEmpty());
}

TEST(stream_summary, players_may_wait_for_a_publisher) {
    const std::vector<StreamSummary> streams =
        summarize_streams({player(0, std::nullopt)}, {}, SortKey::STREAM);
    ASSERT_EQ(streams.size(), 1U);
    EXPECT_EQ(streams[0].publisher_id, std::nullopt);
    EXPECT_EQ(streams[0].out_rate, std::nullopt);
    EXPECT_EQ(plain_line(streams[0]), "cam1\t\t1\t\t\t\t");
}

TEST(stream_summary, omits_connections_without_a_stream) {
    EXPECT_THAT(summarize_streams({Connection()}, {}, SortKey::STREAM), IsEmpty());
}

TEST(stream_summary, the_publisher_that_sent_most_is_shown_first) {
    const std::vector<StreamSummary> streams =
        summarize_streams({publisher(1, 10), publisher(2, 30), publisher(3, 30)}, {}, SortKey::STREAM);
    ASSERT_EQ(streams.size(), 1U);
    EXPECT_THAT(streams[0].publisher_id, Optional(2U));
    EXPECT_THAT(streams[0].rivals, ElementsAre(1, 3));
}

TEST(stream_summary, a_publisher_stays_when_a_rival_overtakes_it_in_bytes) {
    const std::vector<StreamSummary> before =
        summarize_streams({publisher(1, 10), publisher(2, 5)}, {}, SortKey::STREAM);
    const std::vector<StreamSummary> after =
        summarize_streams({publisher(1, 20), publisher(2, 500)}, before, SortKey::STREAM);
    EXPECT_THAT(after[0].publisher_id, Optional(1U));
    EXPECT_THAT(after[0].rivals, ElementsAre(2));
    const std::vector<StreamSummary> dropped = summarize_streams({publisher(2, 600)}, after, SortKey::STREAM);
    EXPECT_THAT(dropped[0].publisher_id, Optional(2U));
}

TEST(stream_summary, another_client_in_the_publishers_slot_is_not_the_publisher) {
    const std::vector<StreamSummary> before = summarize_streams({publisher(1, 10)}, {}, SortKey::STREAM);
    Connection newcomer = publisher(1, 1);
    newcomer.address = "10.0.0.99:1";
    const std::vector<StreamSummary> after =
        summarize_streams({newcomer, publisher(2, 500)}, before, SortKey::STREAM);
    EXPECT_THAT(after[0].publisher_id, Optional(2U));
}

TEST(stream_summary, a_rival_that_has_sent_more_in_total_is_not_the_publisher) {
    // The rival was relayed before it stalled; or it sent much at once and is held now.
    Connection relayed = publisher(1, 100000);
    relayed.received_rate = 50000;
    Connection held = publisher(2, 900000);
    held.received_rate = 0;
    EXPECT_THAT(summarize_streams({relayed, held}, {}, SortKey::STREAM)[0].publisher_id, Optional(1U));
    // The server applies no metadata of a held publisher, so a size outweighs a rate.
    held.received_rate = 90000;
    relayed.size = VideoSize{640, 360};
    const std::vector<StreamSummary> streams = summarize_streams({relayed, held}, {}, SortKey::STREAM);
    EXPECT_THAT(streams[0].publisher_id, Optional(1U));
    EXPECT_THAT(streams[0].rivals, ElementsAre(2));
}

TEST(stream_summary, a_publisher_is_a_guess_while_it_has_rivals) {
    const std::vector<StreamSummary> streams =
        summarize_streams({publisher(1, 10), publisher(2, 30), publisher(3, 5, "demo")}, {}, SortKey::STREAM);
    EXPECT_TRUE(streams[0].publisher_is_guess);
    EXPECT_FALSE(streams[1].publisher_is_guess);
    EXPECT_FALSE(summarize_streams({publisher(2, 40)}, streams, SortKey::STREAM)[0].publisher_is_guess);
}

TEST(stream_summary, is_sorted_by_name_or_by_rate) {
    const std::vector<Connection> connections{player(0, 10.0, "b"), player(1, 5.0, "a"),
                                              player(2, 90.0, "c")};
    const auto names = [](const std::vector<StreamSummary>& streams) {
        std::string all;
        for (const StreamSummary& summary : streams) {
            all += summary.stream;
        }
        return all;
    };
    EXPECT_EQ(names(summarize_streams(connections, {}, SortKey::STREAM)), "abc");
    EXPECT_EQ(names(summarize_streams(connections, {}, SortKey::ID)), "abc");
    EXPECT_EQ(names(summarize_streams(connections, {}, SortKey::RATE)), "cba");
}

TEST(stream_summary, the_plain_line_has_seven_fields) {
    StreamSummary summary;
    summary.stream = "a\tb";
    summary.publisher_id = 3;
    summary.players = 12;
    summary.size = VideoSize{640, 360};
    summary.in_rate = 99.6;
    summary.out_rate = 0;
    summary.rivals = {5, 17};
    EXPECT_EQ(plain_line(summary), "a\\x09b\t3\t12\t640x360\t100\t0\t5,17");
}

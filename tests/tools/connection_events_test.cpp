#include "tools/v9_rtmp_ctl/connection_events.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

Connection client(unsigned id, const std::string& mode, const std::string& stream = "cam1") {
    Connection connection;
    connection.id = id;
    connection.mode = mode;
    connection.stream = mode.empty() ? "" : stream;
    connection.bytes_sent = 2048;
    connection.bytes_received = 3000;
    connection.address = "10.0.0." + std::to_string(id) + ":1";
    return connection;
}

class events_test : public testing::Test {
  protected:
    // Returns the lines about a listing one second later.
    std::vector<std::string> listed(const std::vector<Connection>& connections) {
        std::vector<std::string> lines;
        for (const ConnectionEvent& event : watch.take_in({++now_s * 1000000, connections})) {
            lines.push_back(event_line(event));
        }
        return lines;
    }

    EventWatch watch;
    std::uint64_t now_s = 100;
};

}  // namespace

TEST_F(events_test, are_not_created_for_clients_that_were_connected_before) {
    EXPECT_THAT(listed({client(1, "publish"), client(2, "")}), IsEmpty());
    EXPECT_THAT(listed({client(1, "publish"), client(2, "")}), IsEmpty());
}

TEST_F(events_test, report_what_each_client_starts_and_when_it_leaves) {
    EXPECT_THAT(listed({}), IsEmpty());
    EXPECT_THAT(
        listed({client(1, ""), client(2, "play")}),
        ElementsAre("connect 1, without a stream, from 10.0.0.1:1",
                    "connect 2, play of 'cam1' from 10.0.0.2:1", "play 2, play of 'cam1' from 10.0.0.2:1"));
    EXPECT_THAT(listed({client(1, "publish"), client(2, "play")}),
                ElementsAre("publish 1, publish of 'cam1' from 10.0.0.1:1"));
    EXPECT_THAT(
        listed({client(1, "publish")}),
        ElementsAre("gone 2, play of 'cam1' from 10.0.0.2:1 after 2 s, 2.0 KiB sent, 2.9 KiB received"));
}

TEST_F(events_test, a_slot_that_got_another_client_yields_events_of_both) {
    EXPECT_THAT(listed({client(1, "play")}), IsEmpty());
    Connection other = client(1, "play", "cam2");
    other.address = "10.9.9.9:1";
    EXPECT_THAT(
        listed({other}),
        ElementsAre("gone 1, play of 'cam1' from 10.0.0.1:1 after 1 s, 2.0 KiB sent, 2.9 KiB received",
                    "connect 1, play of 'cam2' from 10.9.9.9:1", "play 1, play of 'cam2' from 10.9.9.9:1"));
}

TEST_F(events_test, a_publisher_that_waited_takes_over_when_the_first_one_leaves) {
    EXPECT_THAT(listed({client(5, "publish")}), IsEmpty());
    EXPECT_THAT(listed({client(3, "publish"), client(5, "publish")}), testing::SizeIs(2));
    EXPECT_THAT(listed({client(3, "publish")}),
                ElementsAre(testing::StartsWith("gone 5, "),
                            "takeover 3, publish of 'cam1' from 10.0.0.3:1; the previous publisher was 5, "
                            "publish of 'cam1' from 10.0.0.5:1"));
}

TEST_F(events_test, a_rival_that_leaves_and_a_later_publisher_are_not_takeovers) {
    EXPECT_THAT(listed({client(3, "publish"), client(5, "publish", "cam2")}), IsEmpty());
    EXPECT_THAT(listed({client(3, "publish"), client(4, "publish"), client(5, "publish", "cam2")}),
                testing::SizeIs(2));
    EXPECT_THAT(listed({client(3, "publish"), client(5, "publish", "cam2")}),
                ElementsAre(testing::StartsWith("gone 4, ")));
    EXPECT_THAT(listed({client(6, "publish"), client(5, "publish", "cam2")}),
                ElementsAre(testing::StartsWith("gone 3, "), testing::StartsWith("connect 6, "),
                            testing::StartsWith("publish 6, ")));
}

TEST_F(events_test, are_passed_to_scripts_as_json_and_as_variables) {
    ConnectionEvent event{EventKind::TAKEOVER, client(3, "publish"), client(5, "publish"), std::nullopt};
    EXPECT_EQ(
        event_json(event, 1760000000),
        R"({"unix_seconds":1760000000,"event":"takeover","id":3,"stream":"cam1","mode":"publish",)"
        R"("address":"10.0.0.3:1","seconds":null,"bytes_sent":2048,"bytes_received":3000,"previous_id":5,)"
        R"("previous_address":"10.0.0.5:1"})");
    EXPECT_THAT(
        event_variables(event),
        ElementsAre(Pair("V9_EVENT", "takeover"), Pair("V9_ID", "3"), Pair("V9_STREAM", "cam1"),
                    Pair("V9_MODE", "publish"), Pair("V9_ADDRESS", "10.0.0.3:1"), Pair("V9_SECONDS", ""),
                    Pair("V9_BYTES_SENT", "2048"), Pair("V9_BYTES_RECEIVED", "3000"),
                    Pair("V9_PREVIOUS_ID", "5"), Pair("V9_PREVIOUS_ADDRESS", "10.0.0.5:1")));
}

TEST_F(events_test, untrusted_names_are_harmless_in_variables) {
    const ConnectionEvent event{EventKind::PLAY, client(3, "play", "a\n$(b)\x1b" + std::string(5000, 'x')),
                                std::nullopt, std::nullopt};
    EXPECT_THAT(event_variables(event),
                Contains(Pair("V9_STREAM", "a\\x0A$(b)\\x1B" + std::string(1024 - 7, 'x'))));
}

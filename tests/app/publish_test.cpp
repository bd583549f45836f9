#include <string>
#include <vector>

#include "core/limits.h"
#include "tests/app/app_fixture.h"

namespace {

using Messages = std::vector<QueuedMessage>;

constexpr std::uint64_t GRACE_US = 3500000;

class publish_test : public AppFixture {};

Bytes publish_arguments(const Bytes& name, const Bytes& type) {
    return amf_string("publish") + amf_number(5) + amf_null() + name + type;
}

}  // namespace

TEST_F(publish_test, makes_the_connection_the_publisher_of_a_free_name) {
    RTMPConnection& conn = add_client();
    receive(conn, make_packet(MESSAGE_AMF0_COMMAND, 4711, publish_command("cam_01"), 8, 77));
    EXPECT_EQ(idle(conn), "Notifing subscribers of time reset\nConnection is publishing 'cam_01'\n");
    EXPECT_EQ(take_queued(conn),
              (Messages{{MESSAGE_AMF0_COMMAND, 4711, publish_status(amf_number(5)), 8, 77}}));
    EXPECT_EQ(conn.stream_mode, "publish");
    EXPECT_EQ(conn.stream_name, "cam_01");
    EXPECT_EQ(conn.stall_deadline_us, fake_clock_us + GRACE_US);
    EXPECT_EQ(record("cam_01").publisher, conn.conn_idx);
    EXPECT_EQ(record("cam_01").last_activity_us, fake_clock_us);
    EXPECT_TRUE(record("cam_01").players.empty());
    EXPECT_FALSE(conn.close_requested);
}

TEST_F(publish_test, does_not_displace_the_current_publisher) {
    RTMPConnection& first = add_publisher();
    RTMPConnection& second = add_client();
    fake_clock_us += 7;
    EXPECT_EQ(command(second, publish_command("cam1")), "Connection is publishing 'cam1'\n");
    EXPECT_EQ(take_queued(second),
              (Messages{{MESSAGE_AMF0_COMMAND, 0, publish_status(amf_number(5)), 3, 0}}));
    EXPECT_EQ(record().publisher, first.conn_idx);
    EXPECT_EQ(record().last_activity_us, fake_clock_us);
    EXPECT_EQ(second.stall_deadline_us, fake_clock_us + GRACE_US);
    EXPECT_FALSE(first.close_requested);
}

TEST_F(publish_test, resets_the_time_of_players_that_came_first_and_drops_those_that_have_had_media) {
    RTMPConnection& fresh = add_player();
    RTMPConnection& served = add_player();
    served.audio.header_delivered = true;
    RTMPConnection& conn = add_client();
    EXPECT_EQ(command(conn, publish_command("cam1")),
              "Notifing subscribers of time reset\n"
              "Dropping subscriber because format change\n"
              "Connection is publishing 'cam1'\n");
    EXPECT_FALSE(fresh.close_requested);
    EXPECT_TRUE(served.close_requested);
}

TEST_F(publish_test, echoes_a_transaction_id_of_any_type) {
    for (const Bytes& id : {amf_string("x"), amf_boolean(2), amf_null(), amf_object({})}) {
        RTMPConnection& conn = add_client();
        command(conn, amf_string("publish") + id + amf_null() + amf_string("cam1") + amf_string("live"));
        EXPECT_EQ(take_queued(conn), (Messages{{MESSAGE_AMF0_COMMAND, 0, publish_status(id), 3, 0}}));
    }
}

TEST_F(publish_test, accepts_string_arguments_of_any_content) {
    struct Case {
        Bytes name;
        Bytes type;
        std::string stream_name;
    };
    for (const Case& row : std::vector<Case>{
             {amf_string(""), amf_string("live"), ""},
             {amf_number(7), amf_string("live"), ""},
             {amf_null(), amf_string("live"), ""},
             {amf_long_string("Z9_"), amf_long_string("live"), "Z9_"},
             {amf_xml_document("a"), amf_xml_document("live"), "a"},
             {amf_string("a"), amf_string("live") + bytes_of({0x0A}), "a"},
         }) {
        RTMPConnection& conn = add_client();
        EXPECT_TRUE(command(conn, publish_arguments(row.name, row.type))
                        .ends_with("Connection is publishing '" + row.stream_name + "'\n"));
        EXPECT_EQ(conn.stream_name, row.stream_name);
        EXPECT_EQ(conn.stream_mode, "publish");
        EXPECT_FALSE(conn.close_requested);
    }
}

TEST_F(publish_test, with_the_empty_name_ends_at_the_first_media) {
    RTMPConnection& conn = add_client();
    EXPECT_EQ(command(conn, publish_command("")),
              "Notifing subscribers of time reset\nConnection is publishing ''\n");
    EXPECT_EQ(record("").publisher, conn.conn_idx);
    EXPECT_EQ(audio(conn, 1), "A/V packet without a stream name\nA/V error\n");
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(publish_test, is_refused_with_the_first_reason_that_applies) {
    struct Case {
        std::string app_name;
        std::string stream_mode;
        Bytes name;
        std::string type;
        std::string printed;
    };
    const std::string no_app = "publish rejected, app mode rejected\n";
    const std::string twice = "publish rejected, stream mode already set\n";
    const std::string bad_name = "play rejected, invalid stream name\n";
    for (const Case& row : std::vector<Case>{
             {"a", "", amf_string("x"), "record",
              "publish command must indicate 'live' type, not 'record'\n"},
             {"a", "", amf_string("x"), "append",
              "publish command must indicate 'live' type, not 'append'\n"},
             {"a", "", amf_string("x"), "Live", "publish command must indicate 'live' type, not 'Live'\n"},
             {"a", "", amf_string("x"), "", "publish command must indicate 'live' type, not ''\n"},
             {"", "play", amf_string("a-b"), "record",
              "publish command must indicate 'live' type, not 'record'\n"},
             {"", "", amf_string("x"), "live", no_app},
             {"", "play", amf_string("a-b"), "live", no_app},
             {"a", "publish", amf_string("x"), "live", twice},
             {"a", "play", amf_string("a-b"), "live", twice},
             {"a", "", amf_string("a-b"), "live", bad_name},
             {"a", "", amf_string("a/b"), "live", bad_name},
             {"a", "", amf_string("a.b"), "live", bad_name},
             {"a", "", amf_string("a b"), "live", bad_name},
             {"a", "", amf_string("\xE9"), "live", bad_name},
             {"a", "", amf_string(std::string("a\0", 2)), "live", bad_name},
         }) {
        RTMPConnection& conn = add_connection();
        conn.app_name = row.app_name;
        conn.stream_mode = row.stream_mode;
        EXPECT_EQ(command(conn, publish_arguments(row.name, amf_string(row.type))),
                  row.printed + "AMF0 error command\n");
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_out.empty());
        EXPECT_EQ(stream_count(), 0U);
        EXPECT_EQ(conn.stall_deadline_us, 0U);
    }
}

TEST_F(publish_test, under_a_refused_name_creates_a_record_when_the_connection_closes) {
    RTMPConnection& conn = add_client();
    command(conn, publish_command("a-b"));
    EXPECT_EQ(conn.stream_mode, "publish");
    EXPECT_EQ(conn.stream_name, "a-b");
    EXPECT_EQ(idle(conn), "");
    EXPECT_EQ(conn.fd, -1);
    EXPECT_EQ(stream_count(), 1U);
    fake_clock_us += 5000000;
    EXPECT_EQ(printed_by([] { dispose_idle_streams(); }), "Disposing old stream 'a-b'\n");
}

TEST_F(publish_test, with_missing_or_malformed_arguments_is_silently_refused) {
    const Bytes id = amf_number(5);
    const Bytes bad = bytes_of({0x0A});
    for (const Bytes& arguments : std::vector<Bytes>{
             "",
             bad,
             id,
             id + bad,
             id + amf_null(),
             id + amf_null() + bad,
             id + amf_null() + amf_string("cam1"),
             id + amf_null() + amf_string("cam1") + bad,
             id + amf_null() + amf_string("cam1") + amf_string("live").substr(0, 6),
         }) {
        RTMPConnection& conn = add_client();
        EXPECT_EQ(command(conn, amf_string("publish") + arguments), "AMF0 error command\n")
            << to_hex(arguments);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_EQ(conn.stream_mode, "");
        EXPECT_TRUE(conn.connection_out.empty());
    }
}

TEST_F(publish_test, with_a_transaction_id_that_cannot_be_echoed_does_not_become_the_publisher) {
    RTMPConnection& conn = add_client();
    EXPECT_EQ(command(conn, amf_string("publish") + bytes_of({AMF_OBJECT_END}) + amf_null() +
                                amf_string("cam1") + amf_string("live")),
              "AMF0 error command\n");
    EXPECT_EQ(stream_count(), 0U);
    EXPECT_TRUE(conn.connection_out.empty());
}

#include <string>
#include <vector>

#include "core/limits.h"
#include "tests/app/app_fixture.h"
#include "tests/support/assertion_line.h"

namespace {

using Messages = std::vector<QueuedMessage>;

class play_test : public AppFixture {
  protected:
    // Adds a publisher with this metadata and then a player. repeated says whether the log reports that the
    // metadata is repeated to the player.
    RTMPConnection& late_player_of(const Bytes& metadata, bool repeated) {
        data_message(add_publisher(), set_metadata(metadata));
        RTMPConnection& player = add_client();
        const std::string subscribed = "Connection for play subscribed to 'cam1'\n";
        EXPECT_EQ(command(player, play_command("cam1")),
                  repeated ? subscribed + "Repeating publisher's onMeta to new client\n" : subscribed);
        return player;
    }
};

using play_death_test = play_test;

Bytes play_arguments(const Bytes& after_command_object) {
    return amf_string("play") + amf_number(4) + amf_null() + after_command_object;
}

}  // namespace

TEST_F(play_test, subscribes_to_a_stream_without_a_publisher) {
    RTMPConnection& conn = add_client();
    receive(conn, make_packet(MESSAGE_AMF0_COMMAND, 4711, play_command("cam_01"), 8, 77));
    EXPECT_EQ(idle(conn), "Connection for play subscribed to 'cam_01'\n");
    EXPECT_EQ(take_queued(conn), (Messages{{MESSAGE_AMF0_COMMAND, 4711, play_status(amf_number(4)), 8, 77}}));
    EXPECT_EQ(conn.stream_mode, "play");
    EXPECT_EQ(conn.stream_name, "cam_01");
    EXPECT_EQ(record("cam_01").players, std::vector<std::size_t>{conn.conn_idx});
    EXPECT_EQ(record("cam_01").publisher, NO_CONNECTION);
    EXPECT_EQ(record("cam_01").last_activity_us, fake_clock_us);
    EXPECT_FALSE(conn.close_requested);
}

TEST_F(play_test, sends_a_late_player_the_metadata_right_after_its_status) {
    RTMPConnection& publisher = add_publisher();
    const Bytes metadata = amf_ecma_array(2, {{"height", amf_number(720)}, {"width", amf_number(1280)}});
    data_message(publisher, set_metadata(metadata));
    RTMPConnection& conn = add_client();
    conn.stream_id = 99;
    EXPECT_EQ(command(conn, play_command("cam1")),
              "Connection for play subscribed to 'cam1'\nRepeating publisher's onMeta to new client\n");
    EXPECT_EQ(take_queued(conn),
              (Messages{{MESSAGE_AMF0_COMMAND, 0, play_status(amf_number(4)), 3, 0},
                        {MESSAGE_AMF0_DATA, 0, amf_string("onMetaData") + metadata, 9, 99}}));
    EXPECT_EQ(conn.stream_format.video_width, 1280);
    EXPECT_EQ(conn.stream_format.video_height, 720);
}

TEST_F(play_test, repeats_only_an_object_or_an_ecma_array) {
    struct Case {
        Bytes metadata;
        bool repeated;
    };
    for (const Case& row : std::vector<Case>{{amf_object({}), true},
                                             {amf_ecma_array(0, {}), true},
                                             {amf_number(1), false},
                                             {amf_string("width"), false},
                                             {amf_null(), false},
                                             {amf_undefined(), false}}) {
        RTMPConnection& player = late_player_of(row.metadata, row.repeated);
        EXPECT_EQ(take_queued(player).size(), row.repeated ? 2U : 1U);
        printed_by([] { free_all_connections(); });
    }
}

TEST_F(play_test, repeats_metadata_that_is_too_large_only_in_the_log_and_sets_the_format) {
    struct Case {
        Bytes metadata;
        bool repeated;
    };
    const Bytes text = amf_long_string(LARGE_TEXT);
    for (const Case& row :
         std::vector<Case>{{too_large({{"width", amf_number(1280)}}), true},
                           {amf_ecma_array(2, {{"text", text}, {"width", amf_number(1280)}}), true},
                           {text, false}}) {
        RTMPConnection& player = late_player_of(row.metadata, row.repeated);
        EXPECT_EQ(take_queued(player).size(), 1U) << "the status";
        EXPECT_EQ(player.stream_format.video_width, row.repeated ? 1280 : -1);
        printed_by([] { free_all_connections(); });
    }
}

TEST_F(play_test, sets_the_format_from_large_metadata_that_was_held_until_its_publisher_took_over) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& rival = add_publisher();
    EXPECT_THAT(data_message(rival, set_metadata(too_large({{"width", amf_number(1280)}}))),
                testing::EndsWith("holding onMetaData for later\n"));
    printed_by([&] { free_connection(publisher.conn_idx); });
    EXPECT_EQ(audio(rival, 0), "Notifing subscribers of time reset\nLock on audio type 10\n");
    RTMPConnection& player = add_client();
    EXPECT_EQ(command(player, play_command("cam1")),
              "Connection for play subscribed to 'cam1'\nRepeating publisher's onMeta to new client\n");
    EXPECT_EQ(take_queued(player).size(), 1U) << "the status";
    EXPECT_THAT(data_message(rival, set_metadata(amf_object({{"width", amf_number(640)}}))),
                testing::EndsWith("width changed\n"));
    EXPECT_TRUE(player.close_requested);
}

TEST_F(play_test, sends_the_metadata_of_the_current_publisher_and_not_of_its_rival) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& rival = add_publisher();
    data_message(publisher, set_metadata(amf_object({{"width", amf_number(1)}})));
    data_message(rival, set_metadata(amf_object({{"width", amf_number(2)}})));
    RTMPConnection& conn = add_client();
    command(conn, play_command("cam1"));
    const Messages queued = take_queued(conn);
    ASSERT_EQ(queued.size(), 2U);
    EXPECT_EQ(queued[1].payload, amf_string("onMetaData") + amf_object({{"width", amf_number(1)}}));
}

TEST_F(play_test, of_a_stream_whose_recorded_publisher_has_left_repeats_nothing) {
    record().publisher = MAX_CONNECTIONS - 1;
    RTMPConnection& conn = add_client();
    EXPECT_EQ(command(conn, play_command("cam1")), "Connection for play subscribed to 'cam1'\n");
    EXPECT_EQ(take_queued(conn).size(), 1U);
}

TEST_F(play_test, of_the_empty_name_is_accepted_without_a_subscription) {
    for (const Bytes& name : {amf_string(""), amf_number(7), amf_null()}) {
        RTMPConnection& conn = add_client();
        EXPECT_EQ(command(conn, play_arguments(name)), "");
        EXPECT_EQ(take_queued(conn).size(), 1U);
        EXPECT_EQ(conn.stream_mode, "play");
        EXPECT_TRUE(record("").players.empty());
        EXPECT_EQ(record("").last_activity_us, fake_clock_us);
    }
}

TEST_F(play_test, ignores_start_and_duration_and_everything_after_them) {
    const Bytes name = amf_string("cam1");
    for (const Bytes& arguments : {name + amf_number(-2), name + amf_number(-2) + amf_number(-1),
                                   name + amf_string("x") + amf_object({}),
                                   name + amf_number(-2) + amf_number(-1) + bytes_of({0x0A})}) {
        RTMPConnection& conn = add_client();
        EXPECT_EQ(command(conn, play_arguments(arguments)), "Connection for play subscribed to 'cam1'\n");
        EXPECT_EQ(take_queued(conn).size(), 1U);
    }
}

TEST_F(play_test, with_missing_or_malformed_arguments_is_silently_refused) {
    const Bytes id = amf_number(4);
    const Bytes bad = bytes_of({0x0A});
    const Bytes name = amf_string("cam1");
    for (const Bytes& arguments : std::vector<Bytes>{
             "",
             bad,
             id,
             id + bad,
             id + amf_null(),
             id + amf_null() + bad,
             id + amf_null() + name.substr(0, 5),
             id + amf_null() + name + bad,
             id + amf_null() + name + amf_number(-2) + bad,
         }) {
        RTMPConnection& conn = add_client();
        EXPECT_EQ(command(conn, amf_string("play") + arguments), "AMF0 error command\n") << to_hex(arguments);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_EQ(conn.stream_mode, "");
        EXPECT_EQ(stream_count(), 0U);
        EXPECT_TRUE(conn.connection_out.empty());
    }
}

TEST_F(play_test, is_refused_with_the_first_reason_that_applies) {
    struct Case {
        std::string app_name;
        std::string stream_mode;
        std::string name;
        std::string printed;
    };
    for (const Case& row : std::vector<Case>{
             {"", "", "x", "play rejected, app mode rejected\n"},
             {"", "publish", "a-b", "play rejected, app mode rejected\n"},
             {"a", "publish", "x", "play rejected, stream mode already set\n"},
             {"a", "play", "a-b", "play rejected, stream mode already set\n"},
             {"a", "", "a-b", "play rejected, invalid stream name\n"},
             {"a", "", "mp4:a", "play rejected, invalid stream name\n"},
         }) {
        RTMPConnection& conn = add_connection();
        conn.app_name = row.app_name;
        conn.stream_mode = row.stream_mode;
        EXPECT_EQ(command(conn, play_command(row.name)), row.printed + "AMF0 error command\n");
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_out.empty());
        EXPECT_EQ(stream_count(), 0U);
    }
}

TEST_F(play_test, under_a_refused_name_still_sets_mode_and_name) {
    RTMPConnection& conn = add_client();
    command(conn, play_command("a-b"));
    EXPECT_EQ(conn.stream_mode, "play");
    EXPECT_EQ(conn.stream_name, "a-b");
}

TEST_F(play_test, after_publish_is_refused_and_so_is_publish_after_play) {
    RTMPConnection& publisher = add_publisher();
    EXPECT_EQ(command(publisher, play_command("cam1")),
              "play rejected, stream mode already set\nAMF0 error command\n");
    RTMPConnection& player = add_player();
    EXPECT_EQ(command(player, publish_command("cam1")),
              "publish rejected, stream mode already set\nAMF0 error command\n");
    EXPECT_EQ(publisher.stream_mode, "publish");
    EXPECT_EQ(player.stream_mode, "play");
}

TEST_F(play_death_test, a_publisher_outside_the_table_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& conn = add_client();
    record().publisher = MAX_CONNECTIONS;
    receive_command(conn, play_command("cam1"));
    EXPECT_EXIT(conn.idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
}

// Hostile input: messages as large, as deep and as wrong as possible. The sender may lose its connection, but
// another stream must continue undisturbed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/large_values.h"
#include "tests/support/live_pair.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

using testing::IsEmpty;

constexpr std::size_t MAX_MESSAGE_BYTES = 1048575;
constexpr std::uint32_t LARGE_CHUNKS = 1 << 20;
constexpr std::size_t LEVELS = 349524;
constexpr std::size_t MEMBERS = 174000;
// In sanitizer builds every level of an object costs many times as much.
constexpr Milliseconds LONGEST_PAUSE{TIME_SCALE == 1 ? 2000 : 12000};
const std::string DUMP_CUT = "WARNING: AMF dump cut";

class the_server_outlives_test : public testing::Test {
  protected:
    // Requires that the other stream was undisturbed and that the server still accepts new clients.
    void TearDown() override {
        if (HasFatalFailure()) {
            return;
        }
        beside.wait_for_more(1);
        beside.finish();
        EXPECT_LT(beside.longest_pause(), LONGEST_PAUSE);
        RtmpClient newcomer = connected_client();
        EXPECT_THAT(newcomer.round_trip(), IsEmpty());
    }

    static RtmpClient stranger() {
        RtmpClient client = handshaken_client();
        client.set_chunk_size(LARGE_CHUNKS);
        return client;
    }

    static RtmpClient publishing_stranger(const std::string& name) {
        RtmpClient client = publishing_client(name);
        client.set_chunk_size(LARGE_CHUNKS);
        return client;
    }

    ServerProcess server;
    LivePair beside;
};

Bytes connect_with(const Bytes& command_object) {
    return amf_string("connect") + amf_number(1) + command_object;
}

Bytes random_bytes(std::mt19937& random, std::size_t count) {
    Bytes result(count, '\0');
    std::generate(result.begin(), result.end(), [&random] { return static_cast<char>(random() & 0xFF); });
    return result;
}

// Reads anything until the server closes.
void read_to_the_end(RtmpClient& client) {
    try {
        while (true) {
            (void)client.read_bytes(1);
        }
    } catch (const TestFailure&) {
        ASSERT_TRUE(client.closed_by_server());
    }
}

}  // namespace

TEST_F(the_server_outlives_test, objects_nested_to_the_end_of_the_message_as_command_name) {
    RtmpClient client = stranger();
    const LineMark mark = server.mark();
    client.send_command(open_nest(LEVELS));
    client.expect_closed();
    server.wait_for_consecutive_lines({"Unknown command ''", "AMF0 error command"}, mark);
}

TEST_F(the_server_outlives_test, objects_nested_to_the_end_of_the_message_as_transaction_id) {
    for (const char* command : {"connect", "createStream", "play", "releaseStream"}) {
        RtmpClient client = stranger();
        const LineMark mark = server.mark();
        const Bytes name = amf_string(command);
        client.send_command(name + open_nest((MAX_MESSAGE_BYTES - name.size() - 1) / 3));
        client.expect_closed();
        server.wait_for_line("AMF0 error command", mark);
    }
}

TEST_F(the_server_outlives_test, a_nested_transaction_id_and_echoes_it_if_the_reply_can_hold_it) {
    RtmpClient client = stranger();
    const Bytes nest = closed_nest(10000);
    client.send_command(amf_string("releaseStream") + nest + amf_null());
    (void)client.expect_message(MSG_SET_CHUNK_SIZE);
    const RtmpMessage reply = client.expect_message(MSG_COMMAND);
    EXPECT_TRUE(reply.payload == amf_string("_result") + nest + amf_null());
    client.send_command(amf_string("releaseStream") + closed_nest(100000) + amf_null());
    client.expect_closed_without_answer();
    server.wait_for_line("AMF0 error command");
}

TEST_F(the_server_outlives_test, objects_nested_to_the_end_of_the_message_as_command_object) {
    RtmpClient client = stranger();
    const LineMark mark = server.mark();
    client.send_command(connect_with(open_nest(LEVELS - 10)));
    client.expect_closed(scaled(Milliseconds{20000}));
    server.wait_for_consecutive_lines({DUMP_CUT, "rejected app ", "AMF0 error command"}, mark);
    std::size_t dumped_bytes = 0;
    for (const std::string& line : server.lines_since(mark)) {
        dumped_bytes += line.starts_with('\t') ? line.size() + 1 : 0;
    }
    EXPECT_LE(dumped_bytes, 1048576U);
    EXPECT_GT(dumped_bytes, 1000000U);
}

TEST_F(the_server_outlives_test, objects_nested_to_the_end_of_the_message_as_metadata) {
    RtmpClient early_player = playing_client("deep");
    RtmpClient publisher = publishing_stranger("deep");
    publisher.send_metadata(open_nest(LEVELS - 20));
    (void)publisher.expect_message(MSG_SET_CHUNK_SIZE, scaled(Milliseconds{20000}));
    EXPECT_THAT(publisher.round_trip(scaled(Milliseconds{20000})), IsEmpty());
    EXPECT_EQ(server.count(DUMP_CUT), 1U);
    // Too large to be sent to players; the stream continues without it.
    RtmpClient late_player = playing_client("deep");
    publisher.send_audio(1000, aac_frame(1));
    EXPECT_EQ(early_player.read_message().payload, aac_frame(1));
    EXPECT_EQ(late_player.read_message().payload, aac_frame(1));
    // And it can be replaced.
    publisher.send_metadata(amf_object({}));
    EXPECT_EQ(early_player.read_message().payload, amf_string("onMetaData") + amf_object({}));
}

TEST_F(the_server_outlives_test, many_members_in_any_order_as_command_object) {
    for (const bool ascending : {true, false}) {
        RtmpClient client = stranger();
        const LineMark mark = server.mark();
        client.send_command(connect_with(many_members(MEMBERS, ascending)));
        client.expect_closed(scaled(Milliseconds{20000}));
        server.wait_for_consecutive_lines({DUMP_CUT, "rejected app ", "AMF0 error command"}, mark);
    }
}

TEST_F(the_server_outlives_test, many_members_in_any_order_as_metadata) {
    RtmpClient publisher = publishing_stranger("wide");
    (void)publisher.expect_message(MSG_SET_CHUNK_SIZE);
    for (const bool ascending : {true, false, true}) {
        publisher.send_metadata(many_members(MEMBERS, ascending));
        EXPECT_THAT(publisher.round_trip(scaled(Milliseconds{20000})), IsEmpty());
    }
    EXPECT_EQ(server.count(DUMP_CUT), 3U);
}

TEST_F(the_server_outlives_test, the_same_key_many_times) {
    Bytes object = bytes_of({AMF_OBJECT});
    for (std::size_t i = 0; i < MEMBERS; ++i) {
        object += amf_key("key") + amf_null();
    }
    RtmpClient client = stranger();
    const LineMark mark = server.mark();
    client.send_command(connect_with(object + amf_end()));
    client.expect_closed();
    server.wait_for_consecutive_lines({"\tAMF var Object", "\t  Object: {",
                                       "\t    'key':", "\t      AMF var Null", "\t  }", "rejected app "},
                                      mark);
}

TEST_F(the_server_outlives_test, strings_as_long_as_the_message_as_names) {
    const std::string name(1000000, 'a');
    const Bytes long_name = amf_long_string(name);
    {
        RtmpClient client = stranger();
        client.send_command(long_name);
        client.expect_closed();
        server.wait_for_line("Unknown command '" + name + "'");
    }
    {
        RtmpClient client = stranger();
        client.send_command(connect_with(amf_object({{"app", long_name}})));
        client.expect_closed();
        server.wait_for_line("rejected app " + name);
    }
    {
        RtmpClient client = connected_client();
        client.set_chunk_size(LARGE_CHUNKS);
        client.send_command(amf_string("play") + amf_number(2) + amf_null() + amf_long_string(name + "-"));
        client.expect_closed();
        server.wait_for_line("play rejected, invalid stream name");
    }
    {
        RtmpClient client = publishing_stranger("other");
        client.send_data(amf_long_string(name));
        server.wait_for_line("Unknown RTMP client notification: '" + name + "'");
    }
}

TEST_F(the_server_outlives_test, stream_names_as_long_as_the_message_and_relays_under_them) {
    const std::string name(1000000, 'a');
    RtmpClient player = connected_client();
    player.set_chunk_size(LARGE_CHUNKS);
    player.send_command(amf_string("play") + amf_number(2) + amf_null() + amf_long_string(name));
    (void)player.expect_message(MSG_SET_CHUNK_SIZE);
    (void)player.expect_message(MSG_COMMAND);
    RtmpClient publisher = connected_client();
    publisher.set_chunk_size(LARGE_CHUNKS);
    publisher.send_command(amf_string("publish") + amf_number(2) + amf_null() + amf_long_string(name) +
                           amf_string("live"));
    for (std::uint32_t i = 0; i < 100; ++i) {
        publisher.send_audio(1000, aac_frame(i));
    }
    for (std::uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(i));
    }
    server.wait_for_line("Connection is publishing '" + name + "'");
}

TEST_F(the_server_outlives_test, repeated_connects_of_full_size) {
    RtmpClient client = stranger();
    Bytes object = many_members(MEMBERS, true);
    object.resize(object.size() - amf_end().size());
    object += amf_key("app") + amf_string("ombrex-live") + amf_end();
    for (int i = 0; i < 3; ++i) {
        client.send_command(connect_with(object));
    }
    (void)client.expect_message(MSG_SET_CHUNK_SIZE, scaled(Milliseconds{20000}));
    for (int i = 0; i < 3; ++i) {
        (void)client.expect_message(MSG_COMMAND, scaled(Milliseconds{20000}));
    }
    EXPECT_EQ(server.count("accepted app ombrex-live"), 4U);
}

TEST_F(the_server_outlives_test, sequence_headers_of_full_size) {
    RtmpClient publisher = publishing_stranger("header");
    (void)publisher.expect_message(MSG_SET_CHUNK_SIZE);
    const Bytes header = from_hex("AF 00") + pattern_bytes(MAX_MESSAGE_BYTES - 2);
    for (int i = 0; i < 4; ++i) {
        publisher.send_audio(1000, header);
    }
    EXPECT_THAT(publisher.round_trip(scaled(Milliseconds{20000})), IsEmpty());
    EXPECT_EQ(server.count("  Data (1048575 bytes)"), 4U);
    RtmpClient player = playing_client("header");
    publisher.send_audio(1000, aac_frame(1));
    EXPECT_TRUE(player.expect_message(MSG_AUDIO).payload == header);
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
}

TEST_F(the_server_outlives_test, random_bytes_instead_of_a_handshake) {
    std::mt19937 random(20240229);
    for (int i = 0; i < 60; ++i) {
        RtmpClient client;
        // Every other one begins like an honest client.
        Bytes bytes = random_bytes(random, random() % 8000);
        if (i % 2 == 0) {
            bytes.insert(bytes.begin(), '\x03');
        }
        (void)client.try_send_bytes(bytes);
        client.half_close();
        read_to_the_end(client);
    }
    EXPECT_EQ(server.count("RTMP handshake failed"), 60U);
}

TEST_F(the_server_outlives_test, random_bytes_after_the_handshake) {
    std::mt19937 random(19991231);
    for (int i = 0; i < 60; ++i) {
        RtmpClient client = handshaken_client();
        (void)client.try_send_bytes(random_bytes(random, 4096));
        client.half_close();
        client.expect_closed();
    }
}

TEST_F(the_server_outlives_test, sessions_with_some_bytes_changed) {
    const auto command = [](const Bytes& payload) {
        return chunked({.type = MSG_COMMAND, .payload = payload, .csid = 3});
    };
    const Bytes metadata = amf_ecma_array(2, {{"width", amf_number(1280)}, {"title", amf_string("a title")}});
    const Bytes session =
        command(connect_with(amf_object({{"app", amf_string("ombrex-live")}}))) +
        command(amf_string("createStream") + amf_number(2) + amf_null()) +
        command(amf_string("publish") + amf_number(3) + amf_null() + amf_string("changed") +
                amf_string("live")) +
        chunked({.type = MSG_DATA,
                 .payload = amf_string("@setDataFrame") + amf_string("onMetaData") + metadata,
                 .csid = 4}) +
        chunked({.type = MSG_VIDEO, .payload = avc_header(), .csid = 6}) +
        chunked({.type = MSG_AUDIO, .payload = aac_header(), .csid = 4}) +
        chunked({.type = MSG_VIDEO, .payload = avc_key_frame(1), .csid = 6}) +
        chunked({.type = MSG_AUDIO, .payload = aac_frame(1), .csid = 4});
    std::mt19937 random(1935);
    std::vector<std::unique_ptr<RtmpClient>> clients;
    for (int i = 0; i < 100; ++i) {
        Bytes changed = session;
        for (std::uint64_t left = 1 + random() % 6; left > 0; --left) {
            changed[random() % changed.size()] = static_cast<char>(random() & 0xFF);
        }
        RtmpClient client = handshaken_client();
        (void)client.try_send_bytes(changed);
        if (i % 2 == 0) {
            client.close();
        } else {
            clients.push_back(std::make_unique<RtmpClient>(std::move(client)));
        }
    }
}

TEST_F(the_server_outlives_test, clients_that_stay_silent_on_every_other_slot) {
    std::vector<std::unique_ptr<RtmpClient>> clients;
    for (std::size_t taken = 2; taken < 128; ++taken) {
        clients.push_back(std::make_unique<RtmpClient>());
        switch (taken % 4) {
            case 0:
                break;
            case 1:
                clients.back()->send_bytes("\x03");
                break;
            default:
                // Everything except the last byte of C2.
                clients.back()->send_bytes("\x03" + pattern_bytes(1536));
                clients.back()->send_bytes(clients.back()->read_bytes(3073).substr(1, 1535));
                break;
        }
        server.err().wait_for_count("Accepted connection", taken + 1);
    }
    (void)RtmpClient().expect_closed();
    server.wait_for_line("Too many connections, dropping new connection");
    beside.wait_for_more(50);
    clients.clear();
    server.err().wait_for_count("Dropping connection", 126);
}

TEST_F(the_server_outlives_test, messages_that_are_announced_and_never_arrive) {
    const std::size_t before_kib = server.rss_kib();
    std::vector<std::unique_ptr<RtmpClient>> clients;
    for (int i = 0; i < 60; ++i) {
        clients.push_back(std::make_unique<RtmpClient>(handshaken_client()));
        OutMessage message{.type = MSG_COMMAND, .payload = Bytes(128, 'x'), .csid = 3};
        message.length = MAX_MESSAGE_BYTES;
        clients.back()->send_message(message);
    }
    beside.wait_for_more(10);
    // Announced but unsent bytes take no memory.
    EXPECT_LT(server.rss_kib(), before_kib + std::size_t{60} * 1024 * TIME_SCALE);
}

TEST_F(the_server_outlives_test, floods_of_the_smallest_messages) {
    std::vector<std::unique_ptr<RtmpClient>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<RtmpClient>(handshaken_client()));
        // A data message without payload; each further one then takes one byte.
        clients.back()->send_bytes(chunked({.type = MSG_DATA, .payload = "", .csid = 5}) +
                                   Bytes(1000, basic_header(3, 5)[0]));
    }
    server.err().wait_for_count("AMF0 notify without a stream name", 8 * 1001);
}

TEST_F(the_server_outlives_test, players_that_ask_for_chunks_of_one_byte) {
    std::vector<std::unique_ptr<RtmpClient>> players;
    for (int i = 0; i < 3; ++i) {
        players.push_back(std::make_unique<RtmpClient>(playing_client("live")));
        players.back()->set_chunk_size(1);
    }
    beside.wait_for_more(25);
    for (const auto& player : players) {
        for (int found = 0; found < 10;) {
            const RtmpMessage message = player->read_message();
            found += message.type == MSG_VIDEO && message.chunk_sizes.size() == 1000 ? 1 : 0;
        }
    }
}

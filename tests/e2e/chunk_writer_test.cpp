// The server's own chunks, byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/expected_replies.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/unseeded_rand.h"

namespace {

using testing::ElementsAre;

// Returns a transaction id that makes the reply to releaseStream, which contains it, exactly this long.
Bytes id_for_reply_of(std::size_t reply_bytes) {
    const std::size_t around = plain_result(amf_long_string("")).size();
    return amf_long_string(pattern_bytes(reply_bytes - around));
}

void send_request(RtmpClient& client, const Bytes& id, OutMessage header = {}) {
    header.payload = amf_string("releaseStream") + id + amf_null();
    client.send_message(header);
}

}  // namespace

TEST(chunk_writer, a_300_byte_message_goes_out_in_three_chunks) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    const Bytes id = id_for_reply_of(300);
    send_request(client, id);
    const Bytes reply = plain_result(id);
    ASSERT_EQ(reply.size(), 300U);
    const Bytes expected = from_hex("03 00 00 00 00 01 2C 14 00 00 00 00") + reply.substr(0, 128) +
                           from_hex("C3") + reply.substr(128, 128) + from_hex("C3") + reply.substr(256);
    EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw), to_hex(expected));
}

TEST(chunk_writer, full_chunks_are_not_followed_by_an_empty_one) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const std::size_t length : {127UL, 128UL, 129UL, 256UL, 257UL, 384UL}) {
        const Bytes id = id_for_reply_of(length);
        send_request(client, id);
        const Bytes expected = chunked({.payload = plain_result(id)});
        EXPECT_EQ(expected.size(), 12 + length + (length - 1) / 128);
        EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw), to_hex(expected));
    }
}

TEST(chunk_writer, long_chunk_stream_ids_are_written_in_all_their_chunks) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    struct Row {
        std::uint32_t csid;
        Bytes first;
        Bytes next;
    };
    const std::vector<Row> rows = {
        {63, from_hex("3F"), from_hex("FF")},
        {64, from_hex("00 00"), from_hex("C0 00")},
        {319, from_hex("00 FF"), from_hex("C0 FF")},
        {320, from_hex("01 00 01"), from_hex("C1 00 01")},
        {1000, from_hex("01 A8 03"), from_hex("C1 A8 03")},
        {65599, from_hex("01 FF FF"), from_hex("C1 FF FF")},
    };
    for (const Row& row : rows) {
        const Bytes id = id_for_reply_of(200);
        send_request(client, id, {.csid = row.csid});
        const Bytes reply = plain_result(id);
        const Bytes expected = row.first + from_hex("00 00 00 00 00 C8 14 00 00 00 00") +
                               reply.substr(0, 128) + row.next + reply.substr(128);
        EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw), to_hex(expected));
    }
}

TEST(chunk_writer, timestamps_from_0xFFFFFF_on_are_extended_in_the_first_chunk_only) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    struct Row {
        std::uint32_t timestamp;
        Bytes field;
        Bytes extension;
    };
    const std::vector<Row> rows = {
        {0, from_hex("00 00 00"), ""},
        {0xFFFFFE, from_hex("FF FF FE"), ""},
        {0xFFFFFF, from_hex("FF FF FF"), from_hex("00 FF FF FF")},
        {0x1000000, from_hex("FF FF FF"), from_hex("01 00 00 00")},
        {0xFFFFFFFF, from_hex("FF FF FF"), from_hex("FF FF FF FF")},
    };
    for (const Row& row : rows) {
        const Bytes id = id_for_reply_of(300);
        send_request(client, id, {.timestamp = row.timestamp, .stream_id = 0x01020304});
        const Bytes reply = plain_result(id);
        const Bytes expected = from_hex("03") + row.field + from_hex("00 01 2C 14 04 03 02 01") +
                               row.extension + reply.substr(0, 128) + from_hex("C3") +
                               reply.substr(128, 128) + from_hex("C3") + reply.substr(256);
        EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw), to_hex(expected)) << row.timestamp;
    }
}

TEST(chunk_writer, every_message_starts_with_a_full_header) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    const Bytes payload = amf_string("releaseStream") + amf_number(2) + amf_null();
    client.send_message({.payload = payload, .csid = 5, .timestamp = 10, .stream_id = 6});
    client.send_message({.payload = payload, .csid = 5, .timestamp = 10, .fmt = 1});
    client.send_message({.payload = payload, .csid = 5, .timestamp = 10, .fmt = 2});
    client.send_message({.payload = payload, .csid = 5, .fmt = 3});
    for (const std::uint32_t timestamp : {10U, 20U, 30U, 40U}) {
        const Bytes expected = chunked(
            {.payload = plain_result(amf_number(2)), .csid = 5, .timestamp = timestamp, .stream_id = 6});
        EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw), to_hex(expected));
    }
}

TEST(chunk_writer, a_reply_may_be_65536_bytes_long_and_no_longer) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    send_request(client, id_for_reply_of(65536));
    EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, plain_result(id_for_reply_of(65536)));
    const LineMark mark = server.mark();
    send_request(client, id_for_reply_of(65537));
    (void)client.expect_closed_without_answer();
    EXPECT_THAT(server.lines_through("Disposing old stream ''", mark),
                ElementsAre("AMF0 error command", "Dropping connection", "Disposing old stream ''"));
}

TEST(chunk_writer, an_empty_message_produces_no_bytes) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1, "");
    publisher.send_video(1, "");
    publisher.send_audio(1, from_hex("AF 01 33"));
    server.wait_for_line("From publisher to connection: source timebase 1, add 0");
    // The strict reader refuses a message without payload.
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, from_hex("AF 01 33"));
}

TEST(chunk_writer, the_chunk_size_echo_goes_out_under_the_old_size_and_what_follows_under_the_new_one) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    std::uint32_t old_size = 128;
    for (const std::uint32_t size : {4096U, 1U, 2U, 3U, 4U, 5U, 127U, 129U, 65536U, 1U, 4194304U}) {
        client.set_chunk_size(size);
        const RtmpMessage echo = client.expect_message(MSG_SET_CHUNK_SIZE);
        EXPECT_EQ(to_hex(echo.raw),
                  to_hex(chunked({.type = MSG_SET_CHUNK_SIZE, .payload = be32(size), .csid = 2}, old_size)));
        const Bytes id = id_for_reply_of(300);
        send_request(client, id);
        EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw),
                  to_hex(chunked({.payload = plain_result(id)}, size)));
        old_size = size;
    }
}

TEST(chunk_writer, replies_that_wait_when_the_chunk_size_changes_keep_the_old_one) {
    // Whatever the order of the replies and the echo in the queue, the strict reader requires the right chunk
    // size for each.
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const std::uint32_t size : {4096U, 128U, 1U, 200U, 3U, 128U}) {
        Bytes burst;
        const Bytes id = id_for_reply_of(400);
        const Bytes request = amf_string("releaseStream") + id + amf_null();
        for (int i = 0; i < 3; ++i) {
            burst += chunked({.payload = request}, client.send_chunk_size());
        }
        client.send_bytes(burst);
        client.set_chunk_size(size);
        for (int i = 0; i < 3; ++i) {
            send_request(client, id);
        }
        int replies = 0;
        bool echoed = false;
        while (replies < 6 || !echoed) {
            const std::uint32_t size_before = client.read_chunk_size();
            const RtmpMessage message = client.read_message();
            if (message.type == MSG_SET_CHUNK_SIZE) {
                echoed = true;
            } else {
                EXPECT_EQ(message.payload, plain_result(id));
                EXPECT_EQ(message.chunk_sizes.front(), std::min<std::size_t>(size_before, 400));
                ++replies;
            }
        }
        EXPECT_EQ(client.read_chunk_size(), size);
    }
}

TEST(chunk_writer, a_sent_message_is_dumped_before_its_length_is_known_with_dbg_pkt) {
    ServerProcess server({"--dbg-pkt"});
    RtmpClient client = handshaken_client();
    const Bytes payload = amf_string("releaseStream") + amf_number(2) + amf_null();
    client.send_message({.payload = payload, .csid = 5, .timestamp = 11, .stream_id = 12});
    (void)client.expect_message(MSG_COMMAND);
    // 3073 bytes of handshake, 12 of header, 26 of payload.
    const std::string acknowledgement =
        "RTMP packet: chunk fmt=0 stream_id=2 timestamp=0 message_length=0 message_type_id=3 "
        "message_stream_id=0";
    server.wait_for_consecutive_lines({
        "Sending:",
        acknowledgement,
        "  Data (4 bytes)",
        "    00 00 0C 27                                       ...'            ",
    });
    const std::string reply =
        "RTMP packet: chunk fmt=0 stream_id=5 timestamp=11 message_length=26 message_type_id=20 "
        "message_stream_id=12";
    server.wait_for_consecutive_lines({
        "Sending:",
        reply,
        "  Data (20 bytes)",
        "    02 00 07 5F 72 65 73 75 6C 74 00 40 00 00 00 00   ..._result.@....",
        "    00 00 00 05                                       ....            ",
    });
}

TEST(chunk_writer, relayed_media_is_not_dumped_even_with_dbg_pkt) {
    ServerProcess server({"--dbg-pkt", "--no-def-ack"});
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    const LineMark mark = server.mark();
    publisher.send_audio(1, from_hex("AF 01 33"));
    (void)player.expect_message(MSG_AUDIO);
    EXPECT_EQ(server.count("Sending:", mark), 0U);
}

TEST(chunk_writer, players_of_one_stream_have_chunk_sizes_of_their_own_and_change_them_meanwhile) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    std::vector<RtmpClient> players;
    for (int i = 0; i < 4; ++i) {
        players.push_back(playing_client("cam1"));
    }
    const std::vector<std::vector<std::uint32_t>> sizes{
        {128, 4096, 128}, {1, 65536, 100}, {4096, 4096, 1}, {129, 128, 4095}};
    std::uint32_t frame = 0;
    for (std::size_t turn = 0; turn < 3; ++turn) {
        for (int before_change = 0; before_change < 2; ++before_change) {
            for (std::size_t i = 0; before_change == 0 && i < players.size(); ++i) {
                players[i].set_chunk_size(sizes[i][turn]);
            }
            for (int i = 0; i < 10; ++i) {
                publisher.send_video(1000, avc_inter_frame(frame + static_cast<std::uint32_t>(i), 5000));
            }
            for (RtmpClient& player : players) {
                for (int i = 0; i < 10;) {
                    const RtmpMessage message = player.read_message();
                    if (message.type == MSG_VIDEO) {
                        EXPECT_EQ(message.payload,
                                  avc_inter_frame(frame + static_cast<std::uint32_t>(i), 5000));
                        ++i;
                    }
                }
            }
            frame += 10;
        }
        for (std::size_t i = 0; i < players.size(); ++i) {
            EXPECT_EQ(players[i].read_chunk_size(), sizes[i][turn]);
        }
    }
}

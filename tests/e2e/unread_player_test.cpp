// Clients that do not read what the server sends them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/live_pair.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::IsEmpty;

constexpr std::size_t STUCK_PLAYERS = 4;
constexpr std::size_t SHARED_MESSAGE_BYTES = 50000;
// Fewer in a sanitizer build: its queues grow sooner, and the test does not limit its memory.
constexpr std::uint32_t SHARED_MESSAGES = 400 / TIME_SCALE;

// Makes packets on the private loopback as small as on a slow link, so that socket buffers also stay small.
void shrink_loopback_packets() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_mtu = 600;
    const int result = ioctl(fd, SIOCSIFMTU, &request);
    close(fd);
    ASSERT_EQ(result, 0) << std::strerror(errno);
}

ClientOptions small_buffer() {
    ClientOptions options;
    options.receive_buffer_bytes = 2304;
    return options;
}

// A stream of large messages on its own server, and a player that reads it.
class ReadStream {
  public:
    explicit ReadStream(std::size_t size_of_message) : message_bytes(size_of_message) {
        publisher.set_chunk_size(1 << 20);
    }

    // Sends this many messages and waits until the player has them. Sends several at a time, so that each of
    // the server's two polls handles several.
    void send(std::uint32_t count) {
        const auto at_once = static_cast<std::uint32_t>(std::max<std::size_t>(1, 500000 / message_bytes));
        for (std::uint32_t sent = 0; sent < count; sent += at_once) {
            const std::uint32_t end = std::min(sent + at_once, count);
            for (std::uint32_t i = sent; i < end; ++i) {
                publisher.send_video(1000, avc_inter_frame(i, message_bytes));
            }
            for (std::uint32_t i = sent; i < end; ++i) {
                EXPECT_EQ(reader.expect_message(MSG_VIDEO).payload.size(), message_bytes);
            }
        }
    }

    // Adds players that read nothing from now on, each with its own chunk size.
    void add_stuck(const std::vector<std::uint32_t>& chunk_sizes) {
        for (const std::uint32_t chunk_size : chunk_sizes) {
            stuck.push_back(std::make_unique<RtmpClient>(small_buffer()));
            (void)stuck.back()->handshake();
            stuck.back()->set_chunk_size(chunk_size);
            stuck.back()->send_connect("ombrex-output");
            stuck.back()->send_play("cam1");
        }
        for (const auto& player : stuck) {
            (void)player->round_trip();
            EXPECT_EQ(player->read_chunk_size(), player->send_chunk_size());
        }
    }

    // Sends this many messages. Requires that the queues of the stuck players take one copy of them, plus 100
    // bytes per message and player. Returns the server's memory before.
    std::size_t expect_one_copy_of(std::uint32_t messages) {
        send(20);  // Fills the socket buffers.
        const std::size_t before_kib = server.rss_kib();
        send(messages);
        const std::size_t stream_kib = messages * message_bytes / 1024;
        EXPECT_GT(server.rss_kib(), before_kib + stream_kib / 2) << "this test needs queues that grow";
        if (TIME_SCALE == 1) {  // A sanitizer uses extra memory.
            EXPECT_LT(server.rss_kib(),
                      before_kib + stream_kib * 13 / 10 + messages * stuck.size() * 100 / 1024);
        }
        return before_kib;
    }

    // Returns once the server has noticed.
    void drop_stuck() {
        const std::size_t players = stuck.size();
        stuck.clear();
        server.err().wait_for_count("Connection for play unsubscribed from 'cam1'", players);
        EXPECT_THAT(publisher.round_trip().size(), testing::Le(1U));
    }

    ServerProcess server;

  private:
    const std::size_t message_bytes;
    RtmpClient reader = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    std::vector<std::unique_ptr<RtmpClient>> stuck;
};

}  // namespace

TEST(unread_player, players_that_never_read_do_not_disturb_the_one_that_does) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> stuck;
    for (std::size_t i = 0; i < STUCK_PLAYERS; ++i) {
        stuck.push_back(std::make_unique<RtmpClient>(playing_client("live", small_buffer())));
    }
    LivePair live(PICTURES);
    live.wait_for_more(150);
    RtmpClient late_player = playing_client("live");
    EXPECT_EQ(late_player.expect_message(MSG_VIDEO).timestamp, 0U);
    // They can leave while the server is sending to them.
    const std::size_t with_stuck = server.thread_count();
    stuck.clear();
    server.err().wait_for_count("Connection for play unsubscribed from 'live'", STUCK_PLAYERS);
    live.wait_for_more(10);
    live.finish();
    EXPECT_LT(live.longest_pause(), scaled(Milliseconds{1000}));
    server.wait_for_thread_count(with_stuck - 2 * STUCK_PLAYERS);
}

TEST(unread_player, the_queue_of_a_stuck_player_is_freed_when_it_leaves) {
    ReadStream stream(1000000);
    // Reading 128 bytes at a time takes a sanitizer's build more than a second for each message.
    stream.send(20 / TIME_SCALE);
    const std::size_t before_kib = stream.server.rss_kib();
    stream.add_stuck({DEFAULT_CHUNK_SIZE});
    stream.send(60 / TIME_SCALE);
    EXPECT_GT(stream.server.rss_kib(), before_kib + 40 * 1024 / TIME_SCALE)
        << "this test needs a queue that grows";
    stream.drop_stuck();
    if (TIME_SCALE == 1) {  // A sanitizer keeps freed memory for a while.
        EXPECT_LT(stream.server.rss_kib(), before_kib + 20 * 1024);
    }
    stream.send(1);
}

TEST(unread_player, players_that_read_nothing_share_their_waiting_messages) {
    ReadStream stream(SHARED_MESSAGE_BYTES);
    stream.add_stuck(std::vector<std::uint32_t>(20, DEFAULT_CHUNK_SIZE));
    const std::size_t before_kib = stream.expect_one_copy_of(SHARED_MESSAGES);
    stream.drop_stuck();
    if (TIME_SCALE == 1) {
        const std::size_t most_kib = before_kib + SHARED_MESSAGES * SHARED_MESSAGE_BYTES / 1024 / 4;
        // Small blocks are returned to the system together, some seconds later.
        const TimePoint deadline = SteadyClock::now() + Milliseconds{15000};
        while (stream.server.rss_kib() >= most_kib && SteadyClock::now() < deadline) {
            stream.send(1);
        }
        EXPECT_LT(stream.server.rss_kib(), most_kib);
    }
    stream.send(1);
}

TEST(unread_player, a_hundred_with_a_hundred_chunk_sizes_share_their_waiting_messages) {
    std::vector<std::uint32_t> chunk_sizes(100);
    std::iota(chunk_sizes.begin(), chunk_sizes.end(), DEFAULT_CHUNK_SIZE - 50);
    ReadStream stream(SHARED_MESSAGE_BYTES);
    stream.add_stuck(chunk_sizes);
    stream.expect_one_copy_of(SHARED_MESSAGES);
    stream.drop_stuck();
    stream.send(1);
}

TEST(unread_player, a_hundred_with_chunks_of_one_byte_share_their_waiting_messages) {
    ReadStream stream(SHARED_MESSAGE_BYTES);
    stream.add_stuck(std::vector<std::uint32_t>(100, 1));
    stream.expect_one_copy_of(SHARED_MESSAGES);
    stream.drop_stuck();
    stream.send(1);
}

TEST(unread_player, unread_acknowledgements_do_not_pile_up) {
    shrink_loopback_packets();
    ServerProcess server;
    constexpr std::size_t PUBLISHERS = 5;
    constexpr std::size_t MESSAGES = 5000;
    // About this many are queued for the client; each further one replaces the previous one.
    constexpr std::size_t LEAST_WAITING = 1000;
    constexpr std::size_t MOST_WAITING = 1200;
    std::vector<std::unique_ptr<RtmpClient>> publishers;
    for (std::size_t i = 0; i < PUBLISHERS; ++i) {
        publishers.push_back(
            std::make_unique<RtmpClient>(publishing_client("cam" + std::to_string(i), small_buffer())));
        // Replies for which the socket has no room, so that everything after them is queued in the server.
        for (int answer = 0; answer < 10; ++answer) {
            publishers.back()->send_command(amf_string("releaseStream") +
                                            amf_string(std::string(60000, 'x')) + amf_null());
        }
    }
    const std::size_t before_kib = server.rss_kib();
    for (const auto& publisher : publishers) {
        // Audio without payload; each further message then takes one byte.
        publisher->send_bytes(chunked({.type = MSG_AUDIO, .payload = "", .csid = 5}) +
                              Bytes(MESSAGES - 1, basic_header(3, 5)[0]));
        publisher->send_data(amf_string("all sent"));
    }
    server.err().wait_for_count("Unknown RTMP client notification: 'all sent'", PUBLISHERS, 0,
                                scaled(Milliseconds{40000}));
    EXPECT_LT(server.rss_kib(), before_kib + std::size_t{TIME_SCALE > 1 ? 300 : 8} * 1024);

    for (const auto& publisher : publishers) {
        const std::uint64_t sent = publisher->bytes_sent();
        std::size_t acknowledgements = 0;
        std::uint32_t value = 0;
        while (value < sent) {
            const RtmpMessage message = publisher->read_any_message();
            if (message.type == MSG_ACKNOWLEDGEMENT) {
                EXPECT_GT(get_be32(message.payload), value);
                value = get_be32(message.payload);
                ++acknowledgements;
            }
        }
        EXPECT_EQ(value, sent) << "the last one counts every byte";
        EXPECT_GT(acknowledgements, LEAST_WAITING);
        EXPECT_LT(acknowledgements, MOST_WAITING);
        EXPECT_THAT(publisher->round_trip(), IsEmpty());
    }
}

// Clients that do not read what the server sends them.
#include "tests/support/live_pair.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using testing::IsEmpty;

constexpr std::size_t STUCK_PLAYERS = 4;

// Packets on this process's own loopback as small as on a slow link, so that socket buffers stay small too.
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

}  // namespace

TEST(unread_player, players_that_never_read_do_not_disturb_the_one_that_does) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> stuck;
    for (std::size_t i = 0; i < STUCK_PLAYERS; ++i) {
        stuck.push_back(std::make_unique<RtmpClient>(playing_client("live", small_buffer())));
    }
    // 4 Mbit/s.
    LivePair live({.stream_name = "live", .interval = Milliseconds{40}, .message_bytes = 20000});
    live.wait_for_more(150);
    RtmpClient late_player = playing_client("live");
    EXPECT_EQ(late_player.expect_message(MSG_VIDEO).timestamp, 0U);
    // They can leave in the middle of what the server is sending them.
    const std::size_t with_stuck = server.thread_count();
    stuck.clear();
    server.err().wait_for_count("Connection for play unsubscribed from 'live'", STUCK_PLAYERS);
    live.wait_for_more(10);
    live.finish();
    EXPECT_LT(live.longest_pause(), scaled(Milliseconds{1000}));
    server.wait_for_thread_count(with_stuck - 2 * STUCK_PLAYERS);
}

TEST(unread_player, what_a_stuck_player_was_owed_is_freed_when_it_leaves) {
    ServerProcess server;
    RtmpClient reader = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.set_chunk_size(1 << 20);
    const auto send_and_wait = [&](std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            publisher.send_video(1000, avc_inter_frame(i, 1000000));
            EXPECT_EQ(reader.expect_message(MSG_VIDEO).payload.size(), 1000000U);
        }
    };
    send_and_wait(20);
    const std::size_t before_kib = server.rss_kib();
    RtmpClient stuck = playing_client("cam1", small_buffer());
    send_and_wait(60);
    EXPECT_GT(server.rss_kib(), before_kib + 40 * 1024) << "this test needs a queue that grows";
    stuck.close();
    server.wait_for_line("Connection for play unsubscribed from 'cam1'");
    EXPECT_THAT(publisher.round_trip().size(), testing::Le(1U));
    if (TIME_SCALE == 1) {  // A sanitizer keeps freed memory for a while.
        EXPECT_LT(server.rss_kib(), before_kib + 20 * 1024);
    }
    send_and_wait(1);
}

TEST(unread_player, players_that_read_nothing_share_what_waits_for_them) {
    constexpr std::size_t PLAYERS = 20;
    constexpr std::uint32_t MESSAGES = 400;
    constexpr std::size_t MESSAGE_BYTES = 50000;
    ServerProcess server;
    RtmpClient reader = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.set_chunk_size(1 << 16);
    const auto send_and_wait = [&](std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            publisher.send_video(1000, avc_inter_frame(i, MESSAGE_BYTES));
            EXPECT_EQ(reader.expect_message(MSG_VIDEO).payload.size(), MESSAGE_BYTES);
        }
    };
    std::vector<std::unique_ptr<RtmpClient>> stuck;
    for (std::size_t i = 0; i < PLAYERS; ++i) {
        stuck.push_back(std::make_unique<RtmpClient>(playing_client("cam1", small_buffer())));
    }
    send_and_wait(20);  // The socket buffers are full.
    const std::size_t before_kib = server.rss_kib();
    send_and_wait(MESSAGES);
    const std::size_t stream_kib = MESSAGES * MESSAGE_BYTES / 1024;
    EXPECT_GT(server.rss_kib(), before_kib + stream_kib / 2) << "this test needs queues that grow";
    if (TIME_SCALE == 1) {
        EXPECT_LT(server.rss_kib(), before_kib + stream_kib * 13 / 10 + MESSAGES * PLAYERS * 100 / 1024);
    }
    stuck.clear();
    server.err().wait_for_count("Connection for play unsubscribed from 'cam1'", PLAYERS);
    EXPECT_THAT(publisher.round_trip().size(), testing::Le(1U));
    if (TIME_SCALE == 1) {
        // Small blocks go back to the system together, some seconds later.
        const TimePoint deadline = SteadyClock::now() + Milliseconds{15000};
        while (server.rss_kib() >= before_kib + stream_kib / 4 && SteadyClock::now() < deadline) {
            send_and_wait(1);
        }
        EXPECT_LT(server.rss_kib(), before_kib + stream_kib / 4);
    }
    send_and_wait(1);
}

TEST(unread_player, acknowledgements_that_nobody_reads_do_not_pile_up) {
    shrink_loopback_packets();
    ServerProcess server;
    constexpr std::size_t PUBLISHERS = 5;
    constexpr std::size_t MESSAGES = 5000;
    // About as many wait for the client; each further one takes the place of the one before it.
    constexpr std::size_t LEAST_WAITING = 1000;
    constexpr std::size_t MOST_WAITING = 1200;
    std::vector<std::unique_ptr<RtmpClient>> publishers;
    for (std::size_t i = 0; i < PUBLISHERS; ++i) {
        publishers.push_back(
            std::make_unique<RtmpClient>(publishing_client("cam" + std::to_string(i), small_buffer())));
        // Answers for which the socket has no room, so that all that follows waits in the server.
        for (int answer = 0; answer < 10; ++answer) {
            publishers.back()->send_command(amf_string("releaseStream") +
                                            amf_string(std::string(60000, 'x')) + amf_null());
        }
    }
    const std::size_t before_kib = server.rss_kib();
    for (const auto& publisher : publishers) {
        // Audio without payload, and then one byte for each further message.
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

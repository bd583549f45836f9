// Clients that connect and leave in every way leave nothing behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

constexpr std::size_t CLIENTS_AT_A_TIME = 10;
// A sanitizer keeps freed memory for a while, and reports leaks at exit.
constexpr std::size_t ALLOWED_GROWTH_KIB = (TIME_SCALE > 1 ? 300 : 12) * 1024;

// One visit of each kind; number makes its stream name unique.
const std::vector<std::function<void(std::size_t number)>> VISITS = {
    [](std::size_t) { RtmpClient().close(); },
    [](std::size_t) { RtmpClient().close_with_reset(); },
    [](std::size_t) {
        RtmpClient client;
        client.send_bytes("\x03" + Bytes(700, 'x'));
    },
    [](std::size_t) {
        RtmpClient client;
        client.send_bytes("\x06");
        client.expect_closed();
    },
    [](std::size_t) { handshaken_client().close_with_reset(); },
    [](std::size_t) {
        RtmpClient client = handshaken_client();
        client.send_bytes(pattern_bytes(500, 3));
        client.half_close();
        client.expect_closed();
    },
    [](std::size_t) { connected_client().close(); },
    [](std::size_t) {
        RtmpClient client = connected_client();
        (void)client.create_stream();
        client.send_command(amf_string("deleteStream") + amf_number(3) + amf_null() + amf_number(1));
        client.expect_closed();
    },
    [](std::size_t number) {
        RtmpClient client = publishing_client("visit" + std::to_string(number));
        client.send_metadata(amf_object({{"title", amf_string("visit")}, {"width", amf_number(1280)}}));
        client.send_audio(1000, aac_header());
        client.send_video(1000, avc_header());
        client.send_video(1000, avc_key_frame(1, 20000));
        (void)client.round_trip();
    },
    [](std::size_t number) {
        RtmpClient client = publishing_client("visit" + std::to_string(number));
        client.send_audio(1000, aac_frame(1));
        client.send_bytes(
            chunked({.type = MSG_VIDEO, .payload = avc_key_frame(1, 20000), .csid = 6}).substr(0, 9000));
        client.close_with_reset();
    },
    [](std::size_t number) { playing_client("visit" + std::to_string(number)).close(); },
    [](std::size_t) {
        RtmpClient player = playing_client("shared");
        (void)player.expect_message(MSG_AUDIO);
        player.close_with_reset();
    },
};

// Makes the visits with these numbers, several at a time. Rethrows the exception of any of them.
void visit(std::size_t from, std::size_t to) {
    std::vector<std::future<void>> visitors;
    for (std::size_t first = 0; first < CLIENTS_AT_A_TIME; ++first) {
        visitors.push_back(std::async(std::launch::async, [=] {
            for (std::size_t number = from + first; number < to; number += CLIENTS_AT_A_TIME) {
                VISITS[number % VISITS.size()](number);
            }
        }));
    }
    for (std::future<void>& visitor : visitors) {
        visitor.get();
    }
}

}  // namespace

TEST(reconnect, five_hundred_visits_of_every_kind_leak_no_threads_descriptors_or_memory) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("shared");
    std::atomic<bool> stop_requested = false;
    // Media for the visiting players.
    std::thread sender([&] {
        while (!stop_requested) {
            publisher.send_audio(1000, aac_frame(1));
            std::this_thread::sleep_for(Milliseconds{20});
        }
    });
    const std::size_t threads = server.thread_count();
    const std::size_t descriptors = server.fd_count();
    const auto all_gone = [&] {
        return server.thread_count() == threads && server.fd_count() == descriptors;
    };
    std::string failure;
    std::size_t warm_kib = 0;
    try {
        visit(0, 100);
        EXPECT_TRUE(holds_within(DEFAULT_WAIT, all_gone)) << "the first visitors are not gone";
        warm_kib = server.rss_kib();
        visit(100, 500);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    EXPECT_EQ(failure, "");
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, all_gone)) << "the visitors are not gone";
    EXPECT_LT(server.rss_kib(), warm_kib + ALLOWED_GROWTH_KIB);
    EXPECT_EQ(server.count("Dropping connection"), 500U);
    EXPECT_EQ(server.count("Accepted connection"), 501U);
    RtmpClient player = playing_client("shared");
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    stop_requested = true;
    sender.join();
}

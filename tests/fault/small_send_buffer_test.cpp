// The control socket with the send buffer that a system grants by default: a long listing leaves in many pieces.
#include "tests/fault/faulty_server.h"
#include "tests/support/control_peer.h"
#include "tests/support/timed_stream.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t NAME_BYTES = 1000000;
constexpr std::size_t PUBLISHERS = 126;  // and the two of the stream that is timed
constexpr Milliseconds LIST_TIME = scaled(Milliseconds{10000});
constexpr Milliseconds LATENESS = scaled(Milliseconds{250});

// The server may ask for no larger buffer.
std::string default_send_buffer() {
    return "setsockopt.main" + ServerSymbols::get().within("comm_socket_v4_idle") + ":1+:ENOBUFS";
}

}  // namespace

TEST(small_send_buffer, strangers_with_126_names_of_1_mb_blind_nobody_and_delay_no_media) {
    FaultyServer faulty(default_send_buffer());
    const std::vector<RtmpClient> publishers = publishers_with_long_names(PUBLISHERS, NAME_BYTES);
    TimedStream stream;
    Milliseconds list_time{0};
    Milliseconds drop_time{0};
    const Milliseconds disturbed = stream.run_beside([&] {
        ControlPeer peer;
        const TimePoint start = SteadyClock::now();
        EXPECT_GT(peer.ask_for_length("list connections", LIST_TIME), PUBLISHERS * NAME_BYTES);
        list_time = elapsed_since(start);
        const TimePoint drops_start = SteadyClock::now();
        EXPECT_EQ(peer.ask("drop connection by stream name", {long_stream_name(7, NAME_BYTES)}).message,
                  "OK, 1 connections dropped");
        EXPECT_GT(peer.ask_for_length("list connections", LIST_TIME), (PUBLISHERS - 1) * NAME_BYTES);
        EXPECT_EQ(peer.ask("drop connection by id", {"5"}).message, "OK");
        drop_time = elapsed_since(drops_start);
    });
    EXPECT_GT(faulty.watch.injected(), 0U);
    EXPECT_LE(list_time, LIST_TIME);
    EXPECT_LE(lateness(disturbed), LATENESS);
    std::cout << "list: " << list_time.count() << " ms; drop, list and drop: " << drop_time.count()
              << " ms; lateness of media: " << lateness(disturbed).count() << " ms\n";
}

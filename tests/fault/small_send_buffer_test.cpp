// The control socket with the system's default send buffer: a long listing is sent in many pieces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/fault/faulty_server.h"
#include "tests/support/control_peer.h"
#include "tests/support/timed_stream.h"
#include "tests/support/tool_run.h"

namespace {

constexpr std::size_t NAME_BYTES = 1000000;
// In sanitizer builds every byte of a name costs several times as much, so there are fewer.
constexpr std::size_t PUBLISHERS = 126 / TIME_SCALE;  // plus the two of the timed stream
constexpr std::size_t PUBLISHERS_FOR_TOOL = TIME_SCALE == 1 ? PUBLISHERS : 14;
constexpr Milliseconds LIST_TIME = scaled(Milliseconds{10000});
// The tool also copies and prints every byte.
constexpr Milliseconds TOOL_TIME = scaled(Milliseconds{30000});
constexpr Milliseconds LATENESS = scaled(Milliseconds{250});

// The server cannot request a larger buffer.
FaultPlan default_send_buffer() {
    return {.call = FaultCall::SETSOCKOPT,
            .error = ENOBUFS,
            .within = ServerSymbols::get().within("comm_socket_v4_idle"),
            .all_later = true,
            .nth = 1};
}

}  // namespace

TEST(small_send_buffer, strangers_with_names_of_1_mb_blind_nobody_and_delay_no_media) {
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
        EXPECT_EQ(peer.ask("drop connection by id", {std::to_string(PUBLISHERS / 2)}).message, "OK");
        drop_time = elapsed_since(drops_start);
    });
    EXPECT_GT(faulty.watch.page().injected, 0U);
    EXPECT_LE(list_time, LIST_TIME);
    EXPECT_LE(lateness(disturbed), LATENESS);
    std::cout << "list: " << list_time.count() << " ms; drop, list and drop: " << drop_time.count()
              << " ms; lateness of media: " << lateness(disturbed).count() << " ms\n";
}

TEST(small_send_buffer, the_tool_lists_and_drops_strangers_with_names_of_1_mb_and_delays_no_media) {
    FaultyServer faulty(default_send_buffer());
    const std::vector<RtmpClient> publishers =
        publishers_with_long_names(PUBLISHERS_FOR_TOOL - 3, NAME_BYTES);
    const RtmpClient unnamed = connected_client();
    ClientOptions other_address;
    other_address.local_address = "127.0.1.1";
    std::vector<RtmpClient> others;
    for (std::size_t i = 0; i < 2; ++i) {
        others.push_back(
            publisher_with_long_name(long_stream_name(PUBLISHERS_FOR_TOOL + i, NAME_BYTES), other_address));
    }
    const auto run = [](std::vector<std::string> arguments, const std::string& name) {
        const ProgramRun tool = run_tool(std::move(arguments), {}, TOOL_TIME);
        EXPECT_EQ(tool.end, (ProgramEnd{0, 0})) << name << ": " << tool.err;
        std::cout << name << ": " << tool.took.count() << " ms\n";
        return tool.out;
    };
    TimedStream stream;
    const Milliseconds disturbed = stream.run_beside([&] {
        EXPECT_GT(run({"--json", "list"}, "list").size(), (PUBLISHERS_FOR_TOOL - 1) * NAME_BYTES);
        EXPECT_GT(run({"--json", "streams"}, "streams").size(), (PUBLISHERS_FOR_TOOL - 1) * NAME_BYTES);
        EXPECT_EQ(run({"--quiet", "drop", "id", "5"}, "drop id"), "");
        EXPECT_EQ(run({"--plain", "drop", "id", "6", "--no-list"}, "drop id --no-list"), "1\n");
        EXPECT_EQ(run({"--plain", "drop", "unnamed", "--force"}, "drop unnamed"), "1\n");
        EXPECT_EQ(run({"--plain", "drop", "id", "8", "9"}, "drop id of two"), "2\n");
        EXPECT_EQ(run({"--plain", "drop", "address", "127.0.1.1", "--force"}, "drop address of two"), "2\n");

        ProgramProcess watch({tool_path(), "watch"});
        std::string first_line;
        (void)watch.out().wait_for_line_starting("v9_rtmp_ctl ", 0, &first_line, TOOL_TIME);
        EXPECT_THAT(first_line, testing::HasSubstr(" of 128 slots used"));
        watch.send_signal(SIGTERM);
        EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{-1, SIGTERM}));
    });
    EXPECT_LE(lateness(disturbed), LATENESS);
    std::cout << "lateness of media: " << lateness(disturbed).count() << " ms\n";
    EXPECT_GT(faulty.watch.page().injected, 0U);
}

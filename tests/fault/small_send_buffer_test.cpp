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
#include "tests/support/live_pair.h"
#include "tests/support/long_names.h"
#include "tests/support/tool_run.h"

namespace {

constexpr std::size_t NAME_BYTES = 1000000;
// In sanitizer builds every byte of a name costs several times as much, so there are fewer.
constexpr std::size_t PUBLISHERS = TIME_SCALE == 1 ? 126 : 14;  // plus the live pair
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

TEST(small_send_buffer, the_tool_lists_and_drops_names_of_1_mb_without_delaying_media) {
    FaultyServer faulty(default_send_buffer());
    const std::vector<RtmpClient> publishers = publishers_with_long_names(PUBLISHERS - 2, NAME_BYTES);
    ClientOptions other_address;
    other_address.local_address = "127.0.1.1";
    std::vector<RtmpClient> others;
    for (std::size_t i = 0; i < 2; ++i) {
        others.push_back(
            publisher_with_long_name(long_stream_name(PUBLISHERS + i, NAME_BYTES), other_address));
    }
    const auto run = [](std::vector<std::string> arguments, const std::string& name) {
        const ProgramRun tool = run_tool(std::move(arguments), {}, TOOL_TIME);
        EXPECT_EQ(tool.end, (ProgramEnd{0, 0})) << name << ": " << tool.err;
        std::cout << name << ": " << tool.took.count() << " ms\n";
        return tool.out;
    };
    LivePair live(PICTURES);
    EXPECT_GT(run({"--json", "list"}, "list").size(), (PUBLISHERS - 1) * NAME_BYTES);
    EXPECT_EQ(run({"--plain", "drop", "address", "127.0.1.1", "--force"}, "drop address of two"), "2\n");

    ProgramProcess watch({tool_path(), "watch"});
    std::string first_line;
    (void)watch.out().wait_for_line_starting("v9_rtmp_ctl ", 0, &first_line, TOOL_TIME);
    EXPECT_THAT(first_line, testing::HasSubstr(" of 128 slots used"));
    watch.send_signal(SIGTERM);
    EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{-1, SIGTERM}));
    live.finish();
    EXPECT_LE(live.lateness(), LATENESS);
    std::cout << "lateness of media: " << live.lateness().count() << " ms\n";
    EXPECT_GT(faulty.watch.page().injected, 0U);
}

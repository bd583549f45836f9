// Runs relay_load with a relay that has planted faults, of which it must count exactly those, and briefly in
// each of its modes with the real server.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/bench/fake_relay.h"
#include "tests/support/program_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr Milliseconds RUN_WAIT = scaled(Milliseconds{120000});
// Far more than a slow machine adds to the lateness of a frame.
constexpr const char* LATE_MS = "5000";

struct LoadRun {
    ProgramRun program;
    nlohmann::json report;
};

LoadRun run_load(std::vector<std::string> arguments) {
    std::vector<std::string> command = {RELAY_LOAD_PATH, "--json", "-",    "--warm-up",
                                        "0.1",           "--late", LATE_MS};
    command.insert(command.end(), arguments.begin(), arguments.end());
    LoadRun run;
    run.program = run_program(command, {}, RUN_WAIT);
    run.report = nlohmann::json::parse(run.program.out, nullptr, false);
    if (run.report.is_discarded()) {
        throw TestFailure("relay_load has written no report: " + run.program.err);
    }
    return run;
}

// In three seconds enough frames arrive to reach every planned place.
std::vector<std::string> three_seconds_of(const FakeRelay& relay) {
    return {"--server", relay.address(), "--publishers", "2", "--players", "3", "--seconds",
            "3",        "--kbit",        "400"};
}

struct Counts {
    int lost;
    int duplicated;
    int reordered;
    int damaged;
    int late;

    bool operator==(const Counts&) const = default;
};

Counts counts_of(const nlohmann::json& report) {
    return {report["lost"], report["duplicated"], report["reordered"], report["damaged"], report["late"]};
}

void PrintTo(const Counts& counts, std::ostream* out) {
    *out << counts.lost << " lost, " << counts.duplicated << " duplicated, " << counts.reordered
         << " reordered, " << counts.damaged << " damaged, " << counts.late << " late";
}

TEST(relay_load, finds_no_fault_in_a_correct_relay) {
    const FakeRelay relay({});
    const LoadRun run = run_load(three_seconds_of(relay));
    EXPECT_EQ(counts_of(run.report), (Counts{0, 0, 0, 0, 0}));
    EXPECT_EQ(run.report["not_arrived"], 0);
    EXPECT_GT(run.report["frames"], 6 * 150);
    EXPECT_EQ(run.report["passed"], true);
    EXPECT_EQ(run.program.end, (ProgramEnd{0, 0}));
}

TEST(relay_load, counts_every_planted_fault_of_every_player_once) {
    const FakeRelay relay({.faults = {{20, Fault::LOSE},
                                      {21, Fault::LOSE},
                                      {30, Fault::DOUBLE},
                                      {40, Fault::SWAP},
                                      {50, Fault::FLIP},
                                      {60, Fault::DELAY},
                                      {61, Fault::LOSE},
                                      {62, Fault::FLIP},
                                      {63, Fault::LOSE},
                                      {70, Fault::SWAP},
                                      {71, Fault::SWAP},
                                      {80, Fault::DELAY},
                                      {81, Fault::DELAY},
                                      {82, Fault::DELAY}}});
    const LoadRun run = run_load(three_seconds_of(relay));
    constexpr int PLAYERS = 6;
    EXPECT_EQ(counts_of(run.report), (Counts{4 * PLAYERS, PLAYERS, 3 * PLAYERS, 2 * PLAYERS, 4 * PLAYERS}));
    EXPECT_EQ(run.report["not_arrived"], 0);
    EXPECT_EQ(run.report["passed"], false);
    EXPECT_EQ(run.program.end, (ProgramEnd{1, 0}));
}

struct OneFault {
    Fault fault;
    Counts counts;
};

class relay_load_fault_test : public testing::TestWithParam<OneFault> {};

TEST_P(relay_load_fault_test, is_counted_under_its_own_kind_only) {
    const FakeRelay relay({.faults = {{40, GetParam().fault}}});
    const LoadRun run = run_load({"--server", relay.address(), "--players", "1", "--seconds", "1.5", "--kbit",
                                  "400", "--chunk-size", "1000", "--publisher-chunk-size", "128"});
    EXPECT_EQ(counts_of(run.report), GetParam().counts);
}

INSTANTIATE_TEST_SUITE_P(each, relay_load_fault_test,
                         testing::Values(OneFault{Fault::LOSE, {1, 0, 0, 0, 0}},
                                         OneFault{Fault::DOUBLE, {0, 1, 0, 0, 0}},
                                         OneFault{Fault::SWAP, {0, 0, 1, 0, 0}},
                                         OneFault{Fault::FLIP, {0, 0, 0, 1, 0}},
                                         OneFault{Fault::DELAY, {0, 0, 0, 0, 1}}));

TEST(relay_load, capacity_is_the_highest_rate_that_passes) {
    // 6000 bytes are 1440 kbit/s at 30 frames a second.
    const FakeRelay relay({.faults = {}, .most_frame_bytes = 6000});
    const LoadRun run = run_load({"--mode", "capacity", "--server", relay.address(), "--players", "1",
                                  "--seconds", "0.2", "--kbit", "400"});
    // 400, 600, 900 and 1350 pass; 2025, 1687 and 1518 do not; 1434 passes.
    EXPECT_EQ(run.report["capacity"]["video_kbit"], 1434);
    EXPECT_EQ(run.report["steps"].size(), 8U);
    EXPECT_EQ(run.program.end, (ProgramEnd{0, 0}));
}

TEST(relay_load, an_invalid_port_is_refused) {
    for (const char* const address : {"127.0.0.1:", "127.0.0.1:0", "127.0.0.1:x", "127.0.0.1:99999"}) {
        const ProgramRun run = run_program({RELAY_LOAD_PATH, "--server", address}, {}, RUN_WAIT);
        EXPECT_NE(run.end, (ProgramEnd{0, 0}));
        EXPECT_NE(run.err.find("the port is a number from 1 to 65535"), std::string::npos) << run.err;
    }
}

TEST(relay_load, the_bare_sender_makes_one_send_for_each_message_and_player) {
    const LoadRun run = run_load({"--mode", "floor", "--players", "7", "--seconds", "0.5"});
    EXPECT_GT(run.report["messages"], 30);
    EXPECT_EQ(run.report["sends"].get<int>(), 7 * run.report["messages"].get<int>());
    EXPECT_EQ(counts_of(run.report), (Counts{0, 0, 0, 0, 0}));
}

TEST(relay_load, storms_lose_nothing) {
    const LoadRun run = run_load({"--mode", "storm", "--players", "5", "--seconds", "1"});
    EXPECT_EQ(counts_of(run.report), (Counts{0, 0, 0, 0, 0}));
    EXPECT_GT(run.report["visits"], 0);
    EXPECT_EQ(run.report["refused_visits"], 0);
    EXPECT_EQ(run.program.end, (ProgramEnd{0, 0}));
}

TEST(relay_load, idle_players_and_sleepers_are_measured) {
    const LoadRun idle = run_load({"--mode", "idle", "--players", "10", "--seconds", "0.5"});
    EXPECT_EQ(idle.program.end, (ProgramEnd{0, 0}));
    EXPECT_GT(idle.report["server"]["voluntary_switches"], 10);
    EXPECT_EQ(idle.report["idle"]["memory_kib"].size(), 2U);
    const LoadRun sleepers = run_load({"--mode", "sleepers", "--players", "10", "--seconds", "0.5"});
    EXPECT_GT(sleepers.report["server"]["voluntary_switches"], 10);
}

}  // namespace

#include "tools/v9_rtmp_ctl/watchdog_log.h"

#include <gtest/gtest.h>

namespace {

Verdict stalled() {
    Connection connection;
    connection.id = 17;
    connection.stream = "cam1";
    connection.mode = "play";
    connection.address = "203.0.113.7:50000";
    return {connection, DropRule::STALLED,
            "it has received nothing for 30 s while the publisher kept sending"};
}

Verdict unnamed() {
    Connection connection;
    connection.id = 5;
    connection.address = "203.0.113.8:50000";
    return {connection, DropRule::UNNAMED, "it has had no stream name for 20 s"};
}

DropOutcome outcome(std::optional<Failure> failure) {
    return {17, "cam1", std::move(failure), "OK"};
}

}  // namespace

TEST(watchdog_log, a_drop_is_one_line_with_its_rule_and_reason) {
    const WatchdogEvent event = event_of(stalled(), outcome(std::nullopt));
    EXPECT_EQ(event_line(event, 0),
              "dropped 17, play of 'cam1' from 203.0.113.7:50000: stalled: it has received nothing for 30 s "
              "while the publisher kept sending");
    EXPECT_EQ(
        event_json(event, 1760000000),
        R"({"unix_seconds":1760000000,"action":"dropped","rule":"stalled","reason":"it has received nothing for )"
        R"(30 s while the publisher kept sending","id":17,"stream":"cam1","mode":"play",)"
        R"("address":"203.0.113.7:50000","message":null})");
}

TEST(watchdog_log, a_client_that_had_left_counts_as_kept_and_another_client_dropped_instead_as_a_miss) {
    const WatchdogEvent kept =
        event_of(stalled(), outcome(Failure{ExitCode::NEGATIVE_ANSWER, "It had left."}));
    EXPECT_EQ(kept.action, WatchdogAction::KEPT);
    EXPECT_EQ(event_line(kept, 0).substr(0, 8), "kept 17,");
    EXPECT_TRUE(event_line(kept, 0).ends_with("kept sending; It had left."));
    const WatchdogEvent missed =
        event_of(stalled(), outcome(Failure{ExitCode::ANOTHER_CLIENT, "another client was dropped."}));
    EXPECT_EQ(missed.action, WatchdogAction::MISSED);
    EXPECT_EQ(event_line(missed, 1).substr(0, 10), "missed 17,");
}

TEST(watchdog_log, a_drop_without_a_name_as_guard_is_marked_and_counts_misses) {
    EXPECT_EQ(
        event_line({WatchdogAction::DROPPED, unnamed(), ""}, 3),
        "dropped 5, without a stream, from 203.0.113.8:50000: unnamed: it has had no stream name for 20 "
        "s; such a drop is guarded only by the id, not by a name (misses so far: 3)");
}

TEST(watchdog_log, untrusted_names_can_neither_end_a_line_nor_control_a_terminal) {
    Verdict verdict = stalled();
    verdict.target.stream = "a\nb\x1b[2J" + std::string(1000, 'x');
    const std::string line = event_line({WatchdogAction::WOULD_DROP, verdict, ""}, 0);
    EXPECT_EQ(line.substr(0, 41), "would drop 17, play of 'a\\x0Ab\\x1B[2Jxxxx");
    EXPECT_LT(line.size(), 250U);
}

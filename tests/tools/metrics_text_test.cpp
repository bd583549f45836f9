#include "tools/v9_rtmp_ctl/metrics_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "tests/tools/observed_clients.h"

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string HOSTILE = "a\"} 1\nevil_metric 9\n\\ \xff\xc3 \u202e{}\t";

class metrics_test : public testing::Test {
  protected:
    void poll(std::uint64_t second, const std::vector<Connection>& connections) {
        history.take_in({second * ONE_SECOND_US, connections});
        series.take_in(history);
        source.connections = connections;
    }

    // The metrics of a server that answers, with every kind of sample.
    std::string everything() {
        poll(1, {observed_publisher(0, "cam1", 100000), observed_player(1, "cam1", 50000)});
        poll(2, {observed_publisher(0, "cam1", 200000), observed_player(1, "cam1", 150000),
                 observed_publisher(2, HOSTILE, 70000), observed_client(3, "", "", 0, 0)});
        source.round_trip_s = 0.05;
        source.process = {1.25, 1700000000.5, 9, 1000000, 500000, 17, 1024};
        source.history = &history;
        source.series = &series;
        source.watchdog = make_statistics({});
        source.watchdog->rules[DropRule::STALLED].drops = 3;
        source.watchdog->updated_unix_seconds = 1700000001;
        source.polled_unix_seconds = 1700000002;
        return metrics_text(source);
    }

    ConnectionHistory history;
    StreamSeries series;
    MetricsSource source;
};

}  // namespace

TEST_F(metrics_test, report_that_the_server_does_not_answer) {
    source.polled_unix_seconds = 1700000002;
    const std::string text = metrics_text(source);
    EXPECT_THAT(text, HasSubstr("\nv9_rtmp_polled_timestamp_seconds 1700000002\n"));
    EXPECT_THAT(text, HasSubstr("\nv9_rtmp_up 0\n"));
    EXPECT_THAT(text, Not(HasSubstr("v9_rtmp_connections")));
}

TEST_F(metrics_test, of_a_server_that_does_not_answer_are_only_its_counters) {
    static_cast<void>(everything());
    source.round_trip_s.reset();
    source.connections.clear();
    const std::string text = metrics_text(source);
    EXPECT_THAT(text, HasSubstr(R"(v9_rtmp_stream_sent_bytes_total{stream="cam1"} 150000)"));
    EXPECT_THAT(text, Not(HasSubstr("v9_rtmp_oldest_player_seconds")));
    EXPECT_THAT(text, Not(HasSubstr("v9_rtmp_stream_players")));
}

TEST_F(metrics_test, count_connections_streams_and_bytes) {
    const std::string text = everything();
    for (const char* const line :
         {"v9_rtmp_up 1", "v9_rtmp_polled_timestamp_seconds 1700000002", "v9_rtmp_slots 128",
          R"(v9_rtmp_connections{mode="publish"} 2)", R"(v9_rtmp_connections{mode="play"} 1)",
          R"(v9_rtmp_connections{mode="none"} 1)", R"(v9_rtmp_streams{state="live"} 2)",
          R"(v9_rtmp_streams{state="waiting"} 0)",
          R"(v9_rtmp_stream_received_bytes_total{stream="cam1"} 200000)",
          R"(v9_rtmp_stream_sent_bytes_total{stream="cam1"} 150000)",
          R"(v9_rtmp_stream_players{stream="cam1"} 1)",
          R"-(v9_rtmp_stream_received_bytes_total{stream="(other)"} 0)-", "v9_rtmp_oldest_player_seconds 1",
          "v9_rtmp_control_round_trip_seconds 0.05", "v9_rtmp_server_cpu_seconds_total 1.25",
          "v9_rtmp_server_threads 9", "v9_rtmp_server_open_fds 17",
          R"(v9_rtmp_watchdog_drops_total{rule="stalled"} 3)",
          R"(v9_rtmp_watchdog_drops_total{rule="age"} 0)"}) {
        EXPECT_THAT("\n" + text, HasSubstr("\n" + std::string(line) + "\n"));
    }
}

TEST_F(metrics_test, of_one_listing_omit_what_one_listing_cannot_show) {
    source.connections = {observed_publisher(0, "cam1", 100000)};
    source.round_trip_s = 0.05;
    const std::string text = metrics_text(source);
    EXPECT_THAT(text, HasSubstr(R"(v9_rtmp_streams{state="live"} 1)"));
    EXPECT_THAT(text, Not(HasSubstr("_bytes_total")));
    EXPECT_THAT(text, Not(HasSubstr("stall")));
    EXPECT_THAT(text, Not(HasSubstr("v9_rtmp_server_")));
}

TEST_F(metrics_test, a_hostile_stream_name_stays_a_value) {
    const std::string text = everything();
    EXPECT_THAT(text, HasSubstr("{stream=\"a\\\"} 1\\\\x0Aevil_metric 9\\\\x0A\\\\ \\\\xFF\\\\xC3 "
                                "\\\\xE2\\\\x80\\\\xAE{}\\\\x09\"} 70000\n"));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("# HELP v9_rtmp_") || line.starts_with("# TYPE v9_rtmp_") ||
                    line.starts_with("v9_rtmp_"))
            << line;
    }
}

TEST_F(metrics_test, each_has_its_help_and_type_once) {
    std::istringstream lines(everything());
    std::set<std::string> described;
    std::string current;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            current = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_TRUE(described.insert(current).second) << current;
            std::getline(lines, line);
            EXPECT_THAT(line,
                        testing::AnyOf("# TYPE " + current + " gauge", "# TYPE " + current + " counter"));
            EXPECT_EQ(line.ends_with(" counter"), current.ends_with("_total")) << current;
        } else {
            EXPECT_THAT(line, StartsWith(current));
        }
    }
}

TEST_F(metrics_test, two_names_that_look_the_same_share_a_series) {
    poll(1, {observed_publisher(0, "a\xff", 100000), observed_publisher(1, "a\\xFF", 100000)});
    source.round_trip_s = 0.05;
    source.history = &history;
    source.series = &series;
    EXPECT_THAT(metrics_text(source), HasSubstr("{stream=\"a\\\\xFF\"} 200000\n"));
}

TEST(metrics_label, escapes_what_ends_a_value_or_a_line) {
    EXPECT_EQ(escape_label("a\"b\\c\nd"), R"(a\"b\\c\nd)");
}

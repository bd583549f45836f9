// v9_rtmp_ctl watch, with and without a terminal: what it shows of a running server, what its keys do, and
// that it always restores the terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/private_namespaces.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/terminal_program.h"
#include "tests/support/test_failure.h"
#include "tests/support/tool_run.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

const std::string KEYS = "q quit  s sort  p pause";
const std::string CTRL_C = "\x03";
const std::string CTRL_BACKSLASH = "\x1c";
const std::string CTRL_Z = "\x1a";
const std::string UP_KEY = "\x1b[A";
const std::string END_KEY = "\x1b[F";

std::vector<std::string> watch_command() {
    return {tool_path(), "watch", "--interval", "0.2"};
}

// An independent terminal of 24 rows and 80 columns, running a command.
class TmuxTerminal {
  public:
    explicit TmuxTerminal(const std::vector<std::string>& command) {
        std::vector<std::string> arguments = {"-f", "/dev/null", "new-session", "-d", "-x", "80", "-y", "24"};
        arguments.insert(arguments.end(), command.begin(), command.end());
        (void)tmux(arguments);
    }
    ~TmuxTerminal() { (void)run_program({"tmux", "-S", SOCKET, "kill-server"}); }
    TmuxTerminal(const TmuxTerminal&) = delete;
    TmuxTerminal& operator=(const TmuxTerminal&) = delete;

    static std::vector<std::string> rows() {
        std::istringstream captured(tmux({"capture-pane", "-p"}));
        std::vector<std::string> lines;
        for (std::string line; std::getline(captured, line);) {
            lines.push_back(line);
        }
        return lines;
    }

  private:
    static constexpr const char* SOCKET = "/run/tmux.socket";

    static std::string tmux(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"tmux", "-S", SOCKET});
        const ProgramRun run = run_program(arguments, {.environment = {"TERM=xterm"}});
        if (run.end != ProgramEnd{0, 0}) {
            throw TestFailure("tmux: " + run.err);
        }
        return run.out;
    }
};

// A publisher of video, its two players, and a client without a stream: connections 0 to 3.
class ctl_watch_test : public testing::Test {
  protected:
    void SetUp() override {
        publisher.send_metadata(amf_object({{"height", amf_number(720)}, {"width", amf_number(1280)}}));
        EXPECT_THAT(publisher.round_trip(), IsEmpty());
    }

    static void expect_whole_frame(const TerminalProgram& watch) {
        // Frames are drawn from the top, and this row is the lowest that changes.
        const std::vector<std::string> rows = watch.wait_for_row(" *3 +- +- .* 127.0.0.1:[0-9]+");
        ASSERT_THAT(rows, SizeIs(TERMINAL_ROWS));
        EXPECT_THAT(rows[0],
                    MatchesRegex("v9_rtmp_ctl [0-9:]{8}  4 of 128 slots used: 1 publish, 2 play, 1 idle"));
        EXPECT_THAT(rows[1], MatchesRegex("in .* out .* sort id"));
        EXPECT_THAT(rows[3], MatchesRegex("STREAM +PUBLISHER +PLAYERS +SIZE +IN +OUT +RIVALS"));
        EXPECT_THAT(rows[4], MatchesRegex("cam1 +0 127.0.0.1:[0-9]+ +2 +1280x720 +.+ +.+ +-"));
        EXPECT_THAT(rows[6], MatchesRegex("ID +STREAM +MODE +SIZE +SENDING +RECEIVING +ADDRESS"));
        EXPECT_THAT(rows[7], MatchesRegex(" *0 +cam1 +publish .* 127.0.0.1:[0-9]+"));
        EXPECT_THAT(rows[8], MatchesRegex(" *1 +cam1 +play .* 127.0.0.1:[0-9]+"));
        EXPECT_THAT(rows[9], MatchesRegex(" *2 +cam1 +play .* 127.0.0.1:[0-9]+"));
        EXPECT_THAT(rows[10], StartsWith(" 3 "));
        EXPECT_EQ(rows[11], "");
        EXPECT_THAT(rows[TERMINAL_ROWS - 1], StartsWith(KEYS));
        const TerminalScreen screen = watch.screen();
        EXPECT_TRUE(screen.shows_alternate());
        EXPECT_FALSE(screen.shows_cursor());
        EXPECT_THAT(screen.unknown(), IsEmpty());
    }

    static void expect_left_in_order(TerminalProgram& watch) {
        EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{0, 0}));
        EXPECT_EQ(watch.damage(), "");
        // The terminal's own screen was replaced and restored.
        EXPECT_THAT(watch.raw_text(), HasSubstr("\x1b[?1049h"));
        EXPECT_THAT(watch.raw_text(), HasSubstr("\x1b[?25h"));
        EXPECT_THAT(watch.raw_text(), HasSubstr("\x1b[?1049l"));
    }

    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient first_player = playing_client("cam1");
    RtmpClient second_player = playing_client("cam1");
    RtmpClient unnamed = connected_client();
};

}  // namespace

// ---- what it shows

TEST_F(ctl_watch_test, a_frame_shows_the_streams_and_the_connections) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    for (const std::string& row : watch.screen().rows()) {
        std::cout << row << '\n';
    }
}

TEST_F(ctl_watch_test, it_shows_clients_that_connect_and_leave_and_the_rates) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    {
        const RtmpClient other = playing_client("another_stream");
        const std::vector<std::string> rows = watch.wait_for_row(" *4 +another_stream +play .*");
        EXPECT_THAT(rows[0], HasSubstr("5 of 128 slots used: 1 publish, 3 play, 1 idle"));
        EXPECT_THAT(rows, Contains(MatchesRegex("another_stream +- +1 +-.*")));
    }
    (void)watch.wait_for_text("4 of 128 slots used");
    // Rates cover the last interval, so they are shown while media flows.
    const std::string flow = "cam1 .* [0-9.]+ KiB/s +[0-9.]+ KiB/s +-";
    const TimePoint start = SteadyClock::now();
    const auto shows_flow = [&flow](const std::vector<std::string>& rows) {
        return testing::Matches(Contains(MatchesRegex(flow)))(rows);
    };
    while (!shows_flow(watch.screen().rows()) && elapsed_since(start) < DEFAULT_WAIT) {
        const auto media_time = static_cast<std::uint32_t>(elapsed_since(start).count());
        publisher.send_audio(1000 + media_time, aac_frame(media_time, 2000));
        std::this_thread::sleep_for(Milliseconds{20});
    }
    (void)watch.wait_for_row(flow, Milliseconds{0});
}

TEST_F(ctl_watch_test, a_line_as_wide_as_the_terminal_is_shown_to_its_last_column) {
    const RtmpClient player = playing_client(std::string(100, 'x'));
    const TmuxTerminal terminal(watch_command());
    const auto is_whole = [&player](const std::string& row) {
        return row.size() == TERMINAL_COLUMNS && row.ends_with(player.local_address());
    };
    const TimePoint start = SteadyClock::now();
    std::vector<std::string> rows;
    do {
        rows = TmuxTerminal::rows();
    } while (std::none_of(rows.begin(), rows.end(), is_whole) && elapsed_since(start) < DEFAULT_WAIT);
    EXPECT_THAT(rows, Contains(testing::ResultOf(is_whole, testing::IsTrue())));
}

TEST_F(ctl_watch_test, it_fits_a_terminal_whose_size_changes) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.resize(12, 40);
    const std::vector<std::string> small = watch.wait_for_rows("a small frame", [](const auto& rows) {
        return rows.size() == 12 && rows[11].starts_with("q quit") && rows[0].size() <= 40 &&
               rows[0].ends_with("4 of 128 slots used");
    });
    for (const std::string& row : small) {
        EXPECT_LE(row.size(), 40U);
    }
    watch.resize(50, 132);
    (void)watch.wait_for_rows("a large frame", [](const auto& rows) {
        return rows.size() == 50 && rows[49].starts_with("q quit") && rows[0].ends_with("1 idle");
    });
    watch.type("q");
    EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{0, 0}));
}

TEST_F(ctl_watch_test, it_waits_for_a_server_that_has_stopped) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    server.stop();
    // The frame is drawn from the top, so the rows of the previous one may still be below.
    const std::vector<std::string> rows = watch.wait_for_rows("the reason alone", [](const auto& shown) {
        return testing::Matches(testing::AllOf(Contains(HasSubstr("there is no socket at")),
                                               Not(Contains(HasSubstr("cam1")))))(shown);
    });
    EXPECT_THAT(rows[0], HasSubstr("not running"));
    ServerOptions options;
    options.beside_another = true;
    const ServerProcess next(options);
    const RtmpClient newcomer = playing_client("cam9");
    (void)watch.wait_for_text("cam9");
    watch.type("q");
    expect_left_in_order(watch);
}

// ---- what its keys do

TEST_F(ctl_watch_test, the_drop_key_asks_first) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    for (const char* const answer : {"n", "\r", "x"}) {
        watch.type("d2\r");
        (void)watch.wait_for_text("Drop connection 2, play 'cam1', " + second_player.local_address() +
                                  "? [y/N]");
        watch.type(answer);
        (void)watch.wait_for_text("Nothing was dropped.");
        (void)second_player.round_trip();
    }
    EXPECT_EQ(server.count("Dropping connection"), 0U);
    watch.type("d2\r");
    (void)watch.wait_for_text("[y/N]");
    watch.type("y");
    (void)watch.wait_for_text("Dropped connection 2.");
    second_player.expect_closed_without_answer();
    (void)watch.wait_for_text("3 of 128 slots used");
    EXPECT_EQ(server.count("Dropping connection"), 1U);
}

TEST_F(ctl_watch_test, a_yes_drops_no_connection_that_changed_while_the_question_waited) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.type("d3\r");
    (void)watch.wait_for_text("Drop connection 3, without a stream, ");
    unnamed.create_stream();
    unnamed.publish("garden");
    watch.type("y");
    (void)watch.wait_for_text("connection 3 has changed and was kept. Look again, then drop it.");
    EXPECT_THAT(unnamed.round_trip(), IsEmpty());

    watch.type("d2\r");
    (void)watch.wait_for_text("Drop connection 2, play 'cam1', ");
    second_player.close();
    (void)watch.wait_for_text("3 of 128 slots used");
    watch.type("y");
    (void)watch.wait_for_text("there is no connection 2.");
}

TEST_F(ctl_watch_test, a_selected_connection_is_dropped_after_a_yes) {
    (void)second_player.round_trip();
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.type(END_KEY);
    (void)watch.wait_for_row("> *3 +- +- .*");
    watch.type(UP_KEY);
    (void)watch.wait_for_row("> *2 +cam1 +play .*");
    watch.type("d");
    (void)watch.wait_for_text("Drop connection 2, play 'cam1', " + second_player.local_address() + "? [y/N]");
    watch.type("y");
    (void)watch.wait_for_text("Dropped connection 2.");
    second_player.expect_closed_without_answer();
    (void)watch.wait_for_text("3 of 128 slots used");
    EXPECT_EQ(server.count("Dropping connection"), 1U);
}

TEST_F(ctl_watch_test, a_selected_stream_is_dropped_after_a_yes) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.type("\t" + END_KEY);
    (void)watch.wait_for_row(">cam1 .*");
    watch.type("d");
    (void)watch.wait_for_text("Drop all 3 connections of stream 'cam1'? [y/N]");
    watch.type("y");
    (void)watch.wait_for_text("Dropped 3 connections of stream 'cam1'.");
    (void)watch.wait_for_text("1 of 128 slots used");
}

TEST_F(ctl_watch_test, the_view_key_shows_either_table_alone) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    const auto shows = [&watch](const char* what, bool streams, bool connections) {
        (void)watch.wait_for_rows(what, [&](const std::vector<std::string>& rows) {
            const auto has = [&rows](const std::string& title) {
                return std::any_of(rows.begin(), rows.end(),
                                   [&title](const std::string& row) { return row.starts_with(title); });
            };
            return has("STREAM ") == streams && has("ID ") == connections;
        });
    };
    watch.type("v");
    shows("the streams", true, false);
    watch.type("v");
    shows("the connections", false, true);
    watch.type("v");
    shows("both", true, true);
}

TEST_F(ctl_watch_test, options_select_what_it_shows) {
    std::vector<std::string> command = watch_command();
    command.insert(command.end(), {"--mode", "play", "--unit", "bits"});
    TerminalProgram watch(command);
    const std::vector<std::string> rows = watch.wait_for_row(" *2 +cam1 +play .* k?bit/s .*");
    EXPECT_THAT(rows[0], HasSubstr("4 of 128 slots used"));
    EXPECT_THAT(rows[1], StartsWith("2 shown  in "));
    EXPECT_THAT(rows, Not(Contains(HasSubstr(" publish "))));
}

TEST_F(ctl_watch_test, the_filter_key_keeps_lines_that_contain_the_text) {
    const RtmpClient other = playing_client("garden");
    TerminalProgram watch(watch_command());
    (void)watch.wait_for_text("garden");
    watch.type("/gard\r");
    const std::vector<std::string> rows = watch.wait_for_rows("what is left", [](const auto& shown) {
        return std::none_of(shown.begin(), shown.end(),
                            [](const std::string& row) { return row.find("cam1") != std::string::npos; });
    });
    EXPECT_THAT(rows, Contains(MatchesRegex(" *4 +garden +play.*")));
    EXPECT_THAT(rows[1], HasSubstr("filter 'gard'"));
    watch.type("/\r");
    (void)watch.wait_for_text("cam1");
}

TEST_F(ctl_watch_test, the_pause_key_keeps_the_frame_until_it_is_pressed_again) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.type("p");
    (void)watch.wait_for_text("PAUSED");
    const RtmpClient other = playing_client("garden");
    // Long enough for two polls.
    std::this_thread::sleep_for(Milliseconds{500});
    EXPECT_THAT(watch.screen().rows(), Not(Contains(HasSubstr("garden"))));
    watch.type("p");
    const std::vector<std::string> rows = watch.wait_for_row(" *4 +garden +play .*");
    EXPECT_THAT(rows[1], Not(HasSubstr("PAUSED")));
}

TEST_F(ctl_watch_test, the_sort_key_cycles_through_the_orders) {
    const RtmpClient first_by_name = playing_client("a_stream");
    TerminalProgram watch(watch_command());
    const auto shows_order = [&watch](const std::string& name, const std::string& first,
                                      const std::string& second) {
        const std::string pattern_of_first = " *" + first + " +.*";
        const std::string pattern_of_second = " *" + second + " +.*";
        (void)watch.wait_for_rows(
            "connection " + first + " before " + second + ", " + name, [&](const auto& rows) {
                const auto at = [&rows](const std::string& pattern) {
                    return std::find_if(rows.begin(), rows.end(), [&pattern](const std::string& row) {
                        return testing::Matches(MatchesRegex(pattern))(row);
                    });
                };
                return rows[1].ends_with("sort " + name) && at(pattern_of_second) != rows.end() &&
                       at(pattern_of_first) < at(pattern_of_second);
            });
    };
    shows_order("id", "0", "4");
    watch.type("s");
    shows_order("stream", "4", "0");
    watch.type("s");
    (void)watch.wait_for_text("sort rate");
    watch.type("s");
    shows_order("id", "0", "4");
}

// ---- how it ends

TEST_F(ctl_watch_test, it_restores_the_terminal_when_q_is_pressed) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.type("q");
    expect_left_in_order(watch);
}

TEST_F(ctl_watch_test, it_restores_the_terminal_when_ctrl_c_is_pressed) {
    for (const std::string& key : {CTRL_C, CTRL_BACKSLASH}) {
        TerminalProgram watch(watch_command());
        expect_whole_frame(watch);
        watch.type(key);
        expect_left_in_order(watch);
    }
}

TEST_F(ctl_watch_test, it_restores_the_terminal_when_it_is_terminated) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU,
                             SIGXFSZ, SIGPIPE, SIGIO, SIGPWR, SIGSTKFLT, SIGRTMIN, SIGRTMAX}) {
        TerminalProgram watch(watch_command());
        expect_whole_frame(watch);
        watch.send_signal(number);
        expect_left_in_order(watch);
    }
}

TEST_F(ctl_watch_test, it_restores_the_terminal_in_the_middle_of_a_question) {
    for (const char* const keys : {"/cam", "d1", "d1\r", "?"}) {
        TerminalProgram watch(watch_command());
        expect_whole_frame(watch);
        watch.type(keys);
        watch.type(CTRL_C);
        expect_left_in_order(watch);
    }
}

TEST_F(ctl_watch_test, it_restores_the_terminal_while_no_server_runs) {
    server.stop();
    TerminalProgram watch(watch_command());
    (void)watch.wait_for_text("Trying again.");
    watch.type("q");
    expect_left_in_order(watch);
}

TEST_F(ctl_watch_test, it_releases_the_terminal_while_it_is_stopped_and_then_takes_it_again) {
    // A shell with job control that leaves the terminal's modes alone. After each stop it prints the id of
    // the process and waits for Enter.
    const std::string script =
        "set -m; n=0; " + linked_in_run(tool_path()) +
        " watch --interval 0.2; while [ $? -gt 128 ]; do n=$((n+1)); printf \"stop $n of \"; "
        "jobs -p; read -r line; fg >/dev/null; done";
    TerminalProgram shell({"dash", "-c", script});
    const auto process_of_stop = [&shell](int number) {
        const std::string text = "stop " + std::to_string(number) + " of ";
        const std::vector<std::string> rows = shell.wait_for_row(text + "[0-9]+");
        const auto row = std::find_if(rows.begin(), rows.end(),
                                      [&text](const std::string& shown) { return shown.starts_with(text); });
        return std::stoi(row->substr(text.size()));
    };
    const auto continue_it = [&shell] {
        EXPECT_EQ(shell.damage(), "");
        shell.type("\r");
        (void)shell.wait_for_text("cam1");
    };
    expect_whole_frame(shell);
    shell.type(CTRL_Z);
    const pid_t watch = process_of_stop(1);
    continue_it();
    kill(watch, SIGTTIN);
    EXPECT_EQ(process_of_stop(2), watch);
    continue_it();
    kill(watch, SIGTTOU);
    EXPECT_EQ(process_of_stop(3), watch);
    continue_it();
    shell.type("q");
    expect_left_in_order(shell);
}

TEST_F(ctl_watch_test, it_keeps_running_after_ctrl_z_if_no_shell_could_continue_it) {
    const std::string take = "\x1b[?1049h";
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.type(CTRL_Z);
    const auto has_taken_it_twice = [&] {
        const std::string text = watch.raw_text();
        return text.find(take) != text.rfind(take);
    };
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, has_taken_it_twice));
    (void)watch.wait_for_text("cam1");
    watch.type("q");
    expect_left_in_order(watch);
}

TEST_F(ctl_watch_test, in_the_background_it_waits_until_it_is_brought_to_the_foreground) {
    const std::string frame = "4 of 128 slots used";
    TerminalProgram shell({"bash", "--noprofile", "--norc", "-i"}, {"PS1=ready> "});
    (void)shell.wait_for_text("ready>");
    int looks = 0;
    const auto wait_until_stopped = [&shell, &looks] {
        const TimePoint start = SteadyClock::now();
        bool stopped = false;
        while (!stopped && elapsed_since(start) < DEFAULT_WAIT) {
            const std::string look = std::to_string(++looks);
            shell.type("printf '\\33[H\\33[2J'; jobs; echo look''" + look + "\r");
            stopped = testing::Matches(Contains(MatchesRegex("\\[1\\]. +Stopped.* watch .*")))(
                shell.wait_for_text("look" + look));
        }
        EXPECT_TRUE(stopped);
        EXPECT_FALSE(shell.screen().shows_alternate());
    };
    // The shell prints the command line, which must fit one row.
    shell.type(linked_in_run(tool_path()) + " watch --interval 0.2 &\r");
    wait_until_stopped();
    EXPECT_THAT(shell.raw_text(), Not(HasSubstr("\x1b[?1049h")));
    shell.type("fg\r");
    (void)shell.wait_for_text(frame);
    shell.type(CTRL_Z);
    wait_until_stopped();
    shell.type("bg\r");
    wait_until_stopped();
    shell.type("fg\r");
    (void)shell.wait_for_text(frame);
    shell.type(CTRL_Z);
    wait_until_stopped();
    // It may have stopped again before the signal arrives, which then stays pending until it continues.
    shell.type("bg; kill %1; kill -CONT %1 2>&-; wait -f %1; echo ended with $?\r");
    (void)shell.wait_for_text("ended with 143");
}

TEST_F(ctl_watch_test, it_ends_while_its_terminal_takes_no_output) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        TerminalProgram watch(watch_command());
        expect_whole_frame(watch);
        watch.stop_taking_output();
        // Long enough for two frames.
        std::this_thread::sleep_for(Milliseconds{500});
        watch.send_signal(number);
        EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{0, 0}));
        watch.take_output_again();
        (void)watch.wait_for_text(TERMINAL_PROMPT);
        EXPECT_FALSE(watch.screen().shows_alternate());
        EXPECT_TRUE(watch.screen().shows_cursor());
    }
}

TEST_F(ctl_watch_test, it_continues_once_its_terminal_takes_output_again) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.stop_taking_output();
    const RtmpClient other = playing_client("garden");
    watch.take_output_again();
    (void)watch.wait_for_text("garden");
    watch.type("q");
    EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{0, 0}));
}

TEST_F(ctl_watch_test, it_ends_when_its_terminal_goes_away) {
    TerminalProgram watch(watch_command());
    expect_whole_frame(watch);
    watch.hang_up();
    EXPECT_EQ(watch.wait_for_exit().signal, 0);
}

// ---- without a terminal

TEST_F(ctl_watch_test, off_a_terminal_it_prints_a_frame_per_interval) {
    const TimePoint start = SteadyClock::now();
    ProgramProcess watch(watch_command());
    const std::string heading = "v9_rtmp_ctl ";
    LineMark mark = 0;
    constexpr int FRAMES = 4;
    for (int i = 0; i < FRAMES; ++i) {
        std::string first;
        mark = watch.out().wait_for_line_starting(heading, mark, &first);
        EXPECT_THAT(first, HasSubstr("4 of 128 slots used: 1 publish, 2 play, 1 idle"));
        std::string stream;
        mark = watch.out().wait_for_line_starting("cam1 ", mark, &stream);
        EXPECT_THAT(stream, MatchesRegex("cam1 +0 127.0.0.1:[0-9]+ +2 +1280x720 .*"));
    }
    // The first frame comes at once, each further one an interval later.
    EXPECT_GE(elapsed_since(start), Milliseconds{200} * (FRAMES - 1));
    EXPECT_THAT(watch.out().raw_text(), Not(HasSubstr("\x1b")));
    watch.send_signal(SIGTERM);
    EXPECT_EQ(watch.wait_for_exit(), (ProgramEnd{-1, SIGTERM}));
    EXPECT_EQ(watch.err().raw_text(), "");
}

TEST_F(ctl_watch_test, a_dumb_terminal_gets_a_frame_per_interval_too) {
    TerminalProgram watch(watch_command(), {"TERM=dumb"});
    (void)watch.wait_for_text("cam1");
    watch.type(CTRL_C);
    (void)watch.wait_for_exit();
    EXPECT_THAT(watch.raw_text(), Not(HasSubstr("\x1b")));
}

TEST_F(ctl_watch_test, json_frames_are_one_document_per_line) {
    std::vector<std::string> command = watch_command();
    command.emplace_back("--json");
    ProgramProcess watch(command);
    LineMark mark = 0;
    for (int i = 0; i < 2; ++i) {
        std::string line;
        mark = watch.out().wait_for_line_starting("{", mark, &line);
        EXPECT_THAT(
            line,
            StartsWith("{\"running\":true,\"slots\":128,\"streams\":[{\"stream\":\"cam1\",\"publisher\":0,"));
    }
    server.stop();
    (void)watch.out().wait_for_line("{\"running\":false,\"slots\":128,\"streams\":[],\"connections\":[]}",
                                    mark);
    EXPECT_EQ(mark, 2U);
}

// v9_rtmp_ctl against the real server, as users and scripts run it: its output, its effects, and its exit
// status for every kind of result.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/terminal_program.h"
#include "tests/support/test_failure.h"
#include "tests/support/tool_run.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr int DONE = 0;
constexpr int NEGATIVE_ANSWER = 1;
constexpr int USAGE = 2;
constexpr int NOT_RUNNING = 3;
constexpr int NO_PERMISSION = 4;
constexpr int NO_REPLY = 5;

const std::string OTHER_SOCKET = "/run/other.socket";

// The tool prints only a reason, which ends with a sentence about what to do.
void expect_failure(const ProgramRun& run, int status, const std::string& reason) {
    EXPECT_EQ(run.end, (ProgramEnd{status, 0})) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, AllOf(StartsWith("v9_rtmp_ctl: "), HasSubstr(reason)));
    EXPECT_TRUE(run.err.ends_with(".\n")) << run.err;
}

void expect_done(const ProgramRun& run) {
    EXPECT_EQ(run.end, (ProgramEnd{DONE, 0})) << run.err;
    EXPECT_EQ(run.err, "");
}

void expect_served(RtmpClient& client) {
    EXPECT_THAT(client.round_trip(), IsEmpty());
}

std::string path_with_socket(const std::string& path) {
    return "--socket=" + path;
}

// Another program's server at OTHER_SOCKET. It accepts one client, waits for its first bytes, sends the given
// answer and closes. Without an answer it accepts clients and sends nothing.
class OtherServer {
  public:
    OtherServer() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        std::filesystem::remove(OTHER_SOCKET);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        OTHER_SOCKET.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd, 8) != 0) {
            throw TestFailure("cannot listen at " + OTHER_SOCKET);
        }
    }
    explicit OtherServer(const Bytes& answer) : OtherServer() {
        thread = std::thread([this, answer] { answer_once(answer); });
    }
    ~OtherServer() {
        if (thread.joinable()) {
            thread.join();
        }
        close(fd);
    }
    OtherServer(const OtherServer&) = delete;
    OtherServer& operator=(const OtherServer&) = delete;

  private:
    void answer_once(const Bytes& answer) const {
        pollfd waiting{fd, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(DEFAULT_WAIT.count())) != 1) {
            return;
        }
        const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        pollfd asking{client, POLLIN, 0};
        (void)poll(&asking, 1, static_cast<int>(DEFAULT_WAIT.count()));
        char request[4096];
        (void)recv(client, request, sizeof request, 0);
        (void)send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        close(client);
    }

    int fd;
    std::thread thread;
};

}  // namespace

// ---- what it prints

TEST(ctl, hello_prints_the_greeting_and_the_round_trip_time) {
    const ServerProcess server;
    const ProgramRun people = run_tool({"hello"});
    expect_done(people);
    EXPECT_THAT(people.out, MatchesRegex("How are you\\? \\(answered in [0-9]+\\.[0-9] ms\\)\n"));
    const ProgramRun plain = run_tool({"hello", "--plain"});
    expect_done(plain);
    EXPECT_THAT(plain.out, MatchesRegex("How are you\\?\t[0-9]+\\.[0-9]\n"));
    const ProgramRun json = run_tool({"--json", "hello"});
    expect_done(json);
    EXPECT_THAT(json.out, MatchesRegex("\\{\"greeting\":\"How are you\\?\",\"round_trip_ms\":[0-9.]+,"
                                       "\"listeners\":\\[[0-9]+\\],\"notes\":\\[\\]\\}\n"));
}

TEST(ctl, hello_reports_that_two_servers_share_the_port) {
    const ServerProcess first;
    ServerOptions options;
    options.beside_another = true;
    const ServerProcess second(options);
    const ProgramRun run = run_tool({"hello"});
    EXPECT_EQ(run.end, (ProgramEnd{DONE, 0}));
    const auto [low, high] = std::minmax({first.pid(), second.pid()});
    EXPECT_THAT(run.err, HasSubstr("warning: 2 processes listen on port 1935 (" + std::to_string(low) + ", " +
                                   std::to_string(high) + ")"));
    EXPECT_THAT(run.err,
                HasSubstr("control socket belongs to process " + std::to_string(second.pid()) + "."));
}

TEST(ctl, hello_reports_that_the_process_that_answers_is_not_the_one_that_listens) {
    const ServerProcess server;
    const OtherServer other(control_reply({0, "hello", "Hi"}));
    const ProgramRun run = run_tool({path_with_socket(OTHER_SOCKET), "hello", "--plain"});
    EXPECT_EQ(run.end, (ProgramEnd{DONE, 0}));
    EXPECT_THAT(run.err, HasSubstr("warning: process " + std::to_string(getpid()) + " answers, but process " +
                                   std::to_string(server.pid()) + " listens on port 1935"));
}

TEST(ctl, hello_reports_that_a_server_without_control_socket_listens) {
    const ServerProcess server;
    std::filesystem::remove(CONTROL_SOCKET_PATH);
    const ProgramRun run = run_tool({"hello"});
    EXPECT_EQ(run.end, (ProgramEnd{NOT_RUNNING, 0}));
    EXPECT_THAT(run.err, HasSubstr("there is no socket at"));
    EXPECT_THAT(run.err,
                HasSubstr("process " + std::to_string(server.pid()) + " still listens on port 1935"));
}

TEST(ctl, a_mistyped_socket_path_gives_no_advice_to_stop_the_server) {
    const ServerProcess server;
    for (const char* const path : {"/etc/passwd", "/run/missing"}) {
        const ProgramRun run = run_tool({path_with_socket(path), "hello"});
        expect_failure(run, NOT_RUNNING, "v9_rtmp_server listens at " + CONTROL_SOCKET_PATH);
        EXPECT_THAT(run.err, Not(HasSubstr("stop"))) << path;
    }
}

TEST(ctl, plain_hello_reports_on_standard_error_what_it_could_not_find_out) {
    const ServerProcess server;
    const ProgramRun run = run_program({"unshare", "--pid", "--fork", tool_path(), "--plain", "hello"});
    EXPECT_EQ(run.end, (ProgramEnd{DONE, 0}));
    EXPECT_THAT(run.out, MatchesRegex("How are you\\?\t[0-9.]+\n"));
    EXPECT_THAT(run.err, HasSubstr("v9_rtmp_ctl: It is not known which process listens on port 1935"));
}

TEST(ctl, hello_checks_the_network_of_the_server_that_answers) {
    const ServerProcess server;
    const ProgramRun run = run_program({"unshare", "--net", tool_path(), "hello"});
    expect_done(run);
    EXPECT_THAT(run.out, MatchesRegex("How are you\\? [^\n]+\n"));
}

TEST(ctl, the_socket_can_be_set_in_the_environment) {
    const OtherServer server(control_reply({0, "hello", "Hi"}));
    EXPECT_THAT(run_tool({"hello", "--plain"}, {.environment = {"V9_RTMP_SOCKET=" + OTHER_SOCKET}}).out,
                StartsWith("Hi\t"));
}

TEST(ctl, list_prints_a_table_for_people_and_the_servers_own_fields_for_scripts) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const RtmpClient player = playing_client("cam2");
    const RtmpClient shaken = handshaken_client();
    publisher.send_metadata(amf_object({{"height", amf_number(720)}, {"width", amf_number(1280)}}));
    expect_served(publisher);

    const ProgramRun plain = run_tool({"--plain", "list"});
    expect_done(plain);
    std::string expected;
    for (const std::string& line : ask_raw("list connections").values("connection")) {
        expected += line + "\n";
    }
    EXPECT_EQ(plain.out, expected);
    EXPECT_THAT(plain.out, HasSubstr("\n2\t\t\t\t3073\t3073\t" + shaken.local_address() + "\n"));

    const ProgramRun people = run_tool({"list"});
    expect_done(people);
    EXPECT_THAT(people.out,
                MatchesRegex("ID +STREAM +MODE +SIZE +SENT +RECEIVED +ADDRESS\n"
                             " *0 +cam1 +publish +1280x720 +[0-9.]+ KiB +[0-9.]+ KiB +127[0-9.:]+\n"
                             " *1 +cam2 +play +- +[0-9.]+ KiB +[0-9.]+ KiB +127[0-9.:]+\n"
                             " *2 +- +- +- +3.0 KiB +3.0 KiB +127[0-9.:]+\n"
                             "3 of 128 slots used\n"));

    const ProgramRun json = run_tool({"--json", "list", "--mode", "none"});
    expect_done(json);
    EXPECT_EQ(json.out,
              "{\"slots\":128,\"connections\":[{\"id\":2,\"stream\":null,\"mode\":null,\"width\":null,"
              "\"height\":null,\"bytes_sent\":3073,\"bytes_received\":3073,\"bytes_sent_per_second\":null,"
              "\"bytes_received_per_second\":null,\"address\":\"" +
                  shaken.local_address() + "\"}]}\n");
}

TEST(ctl, list_filters_by_mode_and_by_stream) {
    const ServerProcess server;
    const RtmpClient player = playing_client("cam2");
    const RtmpClient publisher = publishing_client("cam1");
    const RtmpClient unnamed = connected_client();
    struct Case {
        std::vector<std::string> options;
        const char* ids;
    };
    for (const Case& row : std::vector<Case>{{{}, "012"},
                                             {{"--mode", "play"}, "0"},
                                             {{"--mode", "publish"}, "1"},
                                             {{"--mode", "none"}, "2"},
                                             {{"--stream", "cam1"}, "1"},
                                             {{"--stream", "cam?"}, "01"},
                                             {{"--stream", "cam1", "--stream", "cam2"}, "01"},
                                             {{"--address", "127.0.0.0/8"}, "012"},
                                             {{"--address", unnamed.local_address()}, "2"},
                                             {{"--sort", "stream"}, "102"},
                                             {{"--reverse"}, "210"},
                                             {{"--mode", "play", "--stream", "cam2"}, "0"}}) {
        std::vector<std::string> words = {"--plain", "list"};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const ProgramRun run = run_tool(words);
        expect_done(run);
        std::string ids;
        std::istringstream lines(run.out);
        for (std::string line; std::getline(lines, line);) {
            ids += line.substr(0, line.find('\t'));
        }
        EXPECT_EQ(ids, row.ids) << testing::PrintToString(row.options);
    }
    expect_failure(run_tool({"list", "--no-legend", "-q", "--stream", "cam3", "--plain"}), NEGATIVE_ANSWER,
                   "no connection matches");
}

TEST(ctl, list_on_a_terminal_is_cut_to_its_width) {
    const ServerProcess server;
    const std::string name = std::string(60, 'n') + "_end";
    const RtmpClient publisher = publishing_client(name);
    TerminalProgram tool({tool_path(), "--no-color", "list"});
    EXPECT_EQ(tool.wait_for_exit(), (ProgramEnd{DONE, 0}));
    EXPECT_EQ(tool.damage(), "");
    const std::vector<std::string> rows = tool.screen().rows();
    EXPECT_THAT(rows[1], MatchesRegex("ID +STREAM +MODE +SIZE +SENT +RECEIVED +ADDRESS"));
    EXPECT_THAT(rows[2], MatchesRegex(" *0 +n+~ +publish +- +[0-9.]+ KiB +[0-9.]+ KiB +127[0-9.:]+~?"));
    EXPECT_EQ(rows[3], "1 of 128 slots used");
    EXPECT_THAT(tool.raw_text(), Not(HasSubstr("\x1b"))) << "no color was asked for";
    const ProgramRun piped = run_tool({"list"});
    EXPECT_THAT(piped.out, HasSubstr(name)) << "nothing is cut when nobody looks";
}

TEST(ctl, streams_prints_publisher_players_size_and_rivals) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const RtmpClient first_player = playing_client("cam1");
    const RtmpClient second_player = playing_client("cam1");
    const RtmpClient waiting = playing_client("cam2");
    const RtmpClient rival = publishing_client("cam1");
    publisher.send_metadata(amf_object({{"height", amf_number(720)}, {"width", amf_number(1280)}}));
    publisher.send_audio(1000, aac_frame(1, 50000));
    expect_served(publisher);
    const ProgramRun plain = run_tool({"--plain", "streams"});
    expect_done(plain);
    EXPECT_THAT(plain.out,
                MatchesRegex("cam1\t0\t2\t1280x720\t[0-9]+\t[0-9]+\t4\ncam2\t\t1\t\t\t[0-9]+\t\n"));
    const ProgramRun people = run_tool({"streams"});
    expect_done(people);
    EXPECT_THAT(people.out,
                MatchesRegex("STREAM +PUBLISHER +PLAYERS +SIZE +IN +OUT +RIVALS\n"
                             "cam1 +0\\? 127[0-9.:]+ +2 +1280x720 +[0-9.]+ K?i?B/s +[0-9.]+ K?i?B/s +4\n"
                             "cam2 +- +1 +- +- +[0-9.]+ K?i?B/s +-\n"
                             "\\? marks a guess: [^\n]+\n"));
    const ProgramRun bits = run_tool({"--json", "--unit", "bits", "streams", "cam1"});
    expect_done(bits);
    EXPECT_THAT(bits.out, HasSubstr("\"publisher\":0,"));
    EXPECT_THAT(bits.out,
                AllOf(HasSubstr("\"publisher_is_guess\":true"), HasSubstr("\"bits_in_per_second\":")));
}

TEST(ctl, untrusted_names_are_escaped_on_the_terminal) {
    const OtherServer server(control_reply(
        {0, "list connections", "", {{"connection", "0\tcam\x1b[2J\nfoo\xff\tpublish\t\t1\t2\t1.2.3.4:5"}}}));
    const ProgramRun run = run_tool({path_with_socket(OTHER_SOCKET), "list"});
    expect_done(run);
    EXPECT_THAT(run.out, HasSubstr(" cam\\x1B[2J\\x0Afoo\\xFF "));
}

// ---- what it drops

TEST(ctl, drop_id_drops_the_connection_and_prints_its_stream) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    const ProgramRun wrong_name = run_tool({"drop", "id", "0", "--stream", "cam2"});
    expect_failure(wrong_name, NEGATIVE_ANSWER, "connection 0 does not belong to stream 'cam2' and was kept");
    expect_served(publisher);
    const ProgramRun run = run_tool({"drop", "id", "0"});
    expect_done(run);
    EXPECT_EQ(run.out, "dropped connection 0 of stream 'cam1'\n");
    publisher.expect_closed_without_answer();
    const ProgramRun guarded = run_tool({"--plain", "drop", "id", "1", "--stream", "cam1"});
    expect_done(guarded);
    EXPECT_EQ(guarded.out, "1\n");
    player.expect_closed_without_answer();
    expect_failure(run_tool({"drop", "id", "0"}), NEGATIVE_ANSWER, "there is no connection 0");
}

TEST(ctl, several_ids_are_all_tried_and_the_worst_status_is_returned) {
    const ServerProcess server;
    RtmpClient first = publishing_client("cam1");
    RtmpClient second = playing_client("cam1");
    RtmpClient third = playing_client("cam2");
    const ProgramRun dry = run_tool({"drop", "id", "0", "2", "--dry-run", "--plain"});
    expect_done(dry);
    EXPECT_THAT(dry.out, MatchesRegex("0\tcam1\tpublish\t[^\n]+\n2\tcam2\tplay\t[^\n]+\n"));
    const ProgramRun run = run_tool({"drop", "id", "0", "77", "1"});
    EXPECT_EQ(run.end, (ProgramEnd{NEGATIVE_ANSWER, 0}));
    EXPECT_EQ(run.out, "dropped connection 0 of stream 'cam1'\ndropped connection 1 of stream 'cam1'\n");
    EXPECT_THAT(run.err, HasSubstr("there is no connection 77"));
    first.expect_closed_without_answer();
    second.expect_closed_without_answer();
    expect_served(third);
    const ProgramRun unseen = run_tool({"drop", "id", "2", "--no-list", "--stream", "cam2"});
    expect_done(unseen);
    third.expect_closed_without_answer();
}

TEST(ctl, drop_address_drops_connections_from_a_prefix) {
    const ServerProcess server;
    ClientOptions other_address;
    other_address.local_address = "127.0.1.1";
    RtmpClient near = playing_client("cam1");
    RtmpClient far(other_address);
    far.handshake();
    far.connect_app();
    far.create_stream();
    far.play("cam1");
    expect_failure(run_tool({"drop", "address", "127.0.1.0/24"}), USAGE, "--force");
    const ProgramRun dry = run_tool({"drop", "address", "127.0.1.0/24", "-n", "--plain"});
    expect_done(dry);
    EXPECT_THAT(dry.out, MatchesRegex("1\tcam1\tplay\t[^\n]+\n"));
    const ProgramRun run = run_tool({"drop", "address", "127.0.1.0/24", "-f"});
    expect_done(run);
    EXPECT_EQ(run.out, "dropped connection 1 of stream 'cam1'\n");
    far.expect_closed_without_answer();
    expect_served(near);
    expect_failure(run_tool({"drop", "address", "127.0.1.1", "-f"}), NEGATIVE_ANSWER,
                   "no connection matches");
}

TEST(ctl, an_id_is_checked_before_anything_is_sent) {
    // There is no server, and none is needed.
    for (const char* const id : {"128", "5x", "x5", "-1", "", " 5", "+5", "4294967301", "0x3"}) {
        expect_failure(run_tool({"drop", "id", "--", id}), USAGE, "is not a connection id");
    }
}

TEST(ctl, drop_stream_needs_force_without_a_terminal) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    RtmpClient other = playing_client("cam2");
    expect_failure(run_tool({"drop", "stream", "cam1"}), USAGE, "--force");
    expect_served(publisher);
    const ProgramRun dry = run_tool({"--plain", "drop", "stream", "cam1", "-n"});
    expect_done(dry);
    EXPECT_THAT(dry.out, MatchesRegex("0\tcam1\tpublish\t[^\n]+\n1\tcam1\tplay\t[^\n]+\n"));
    expect_served(publisher);
    EXPECT_EQ(server.count("Dropping connection"), 0U);
    const ProgramRun forced = run_tool({"drop", "stream", "cam1", "--force"});
    expect_done(forced);
    EXPECT_EQ(forced.out, "dropped 2 connections\n");
    publisher.expect_closed_without_answer();
    player.expect_closed_without_answer();
    expect_served(other);
    expect_failure(run_tool({"drop", "stream", "cam1", "-f"}), NEGATIVE_ANSWER,
                   "no connection publishes or plays 'cam1'");
}

TEST(ctl, drop_stream_asks_on_a_terminal_and_follows_the_answer) {
    const ServerProcess server;
    RtmpClient player = playing_client("cam1");
    for (const char* const answer : {"n\n", "\n", "nonsense\n", "\x04"}) {
        TerminalProgram tool({tool_path(), "drop", "stream", "cam1"});
        (void)tool.wait_for_text("Drop 1 connection of stream 'cam1'? [y/N]");
        tool.type(answer);
        EXPECT_EQ(tool.wait_for_exit(), (ProgramEnd{NEGATIVE_ANSWER, 0}));
        EXPECT_EQ(tool.damage(), "");
        expect_served(player);
    }
    EXPECT_EQ(server.count("Dropping connection"), 0U);
    TerminalProgram tool({tool_path(), "drop", "stream", "cam1"});
    (void)tool.wait_for_text("[y/N]");
    tool.type("y\n");
    EXPECT_EQ(tool.wait_for_exit(), (ProgramEnd{DONE, 0}));
    player.expect_closed_without_answer();
}

TEST(ctl, connections_without_a_stream_are_dropped_only_by_drop_unnamed) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient unnamed = connected_client();
    expect_failure(run_tool({"drop", "stream", ""}), USAGE, "drop unnamed");
    expect_failure(run_tool({"drop", "stream", "", "--force"}), USAGE, "drop unnamed");
    expect_failure(run_tool({"drop", "unnamed"}), USAGE, "--force");
    expect_served(unnamed);
    const ProgramRun run = run_tool({"drop", "unnamed", "-f"});
    expect_done(run);
    EXPECT_EQ(run.out, "dropped 1 connection\n");
    unnamed.expect_closed_without_answer();
    expect_served(publisher);
    expect_failure(run_tool({"drop", "unnamed", "-f"}), NEGATIVE_ANSWER,
                   "every connection has chosen a stream");
}

// ---- raw

TEST(ctl, raw_passes_arguments_as_they_are_given) {
    const ServerProcess server;
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"raw", "--async", "foo", "--json", "-q", "", "--socket", "--", "a b"},
             {"raw", "--async", "--", "foo", "--json", "-q", "", "--socket", "--", "a b"}}) {
        const LineMark mark = server.mark();
        const ProgramRun run = run_tool(words);
        expect_done(run);
        EXPECT_EQ(run.out, "");
        server.wait_for_consecutive_lines(
            {"  command: \"foo\"", "  message: \"\"", "  argument 0: \"--json\"", "  argument 1: \"-q\"",
             "  argument 2: \"\"", "  argument 3: \"--socket\"", "  argument 4: \"--\"",
             "  argument 5: \"a b\""},
            mark);
    }
}

TEST(ctl, raw_shows_invalid_text_as_replacement_characters) {
    const ServerProcess server;
    const ProgramRun run = run_tool({"raw", "f\xff\xc3\xa4\"\\o"});
    expect_done(run);
    EXPECT_EQ(
        run.out,
        "{\"status\": 6, \"command\": \"f\xef\xbf\xbd\xc3\xa4\\\"\\\\o\", \"message\": \"Unknown command\", "
        "\"pairs\": []}\n");
}

TEST(ctl, raw_succeeds_whatever_the_status_of_the_reply_is) {
    const OtherServer server(control_reply({UINT64_MAX, "c", "m", {{"n", "2"}, {"n", "1"}}}));
    const ProgramRun run = run_tool({path_with_socket(OTHER_SOCKET), "raw", "hello"});
    expect_done(run);
    EXPECT_EQ(run.out,
              "{\"status\": 18446744073709551615, \"command\": \"c\", \"message\": \"m\", \"pairs\": "
              "[[\"n\",\"2\"], [\"n\",\"1\"]]}\n");
}

// ---- how it fails

TEST(ctl, wrong_usage_is_status_2) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {},
             {"nonsense"},
             {"list", "--nonsense"},
             {"list", "--mode", "nonsense"},
             {"--timeout", "x", "hello"},
             {"--json", "--plain", "list"},
             {"drop"},
             {"drop", "id"},
             {"drop", "stream"},
             {"raw"},
             {"raw", "--async"},
             {"completion", "nonsense"},
             {"watch", "--interval", "0"},
         }) {
        expect_failure(run_tool(words), USAGE, "");
    }
}

TEST(ctl, a_missing_socket_and_a_stale_one_are_status_3) {
    std::filesystem::remove(CONTROL_SOCKET_PATH);
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"hello"},
                                               {"list"},
                                               {"streams"},
                                               {"drop", "id", "0"},
                                               {"drop", "unnamed", "-f"},
                                               {"raw", "hello"},
                                               {"raw", "--async", "hello"}}) {
        expect_failure(run_tool(words), NOT_RUNNING, "there is no socket at " + CONTROL_SOCKET_PATH);
    }
    ServerProcess server;
    server.kill();
    ASSERT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH));
    expect_failure(run_tool({"hello"}), NOT_RUNNING, "nothing listens at " + CONTROL_SOCKET_PATH);
    expect_failure(run_tool({"raw", "hello"}), NOT_RUNNING, "nothing listens at " + CONTROL_SOCKET_PATH);
}

TEST(ctl, a_socket_that_this_user_may_not_use_is_status_4) {
    const ServerProcess server;
    ProgramOptions as_others;
    as_others.obeys_file_modes = true;
    expect_done(run_tool({"hello"}, as_others));
    ASSERT_EQ(chmod(CONTROL_SOCKET_PATH.c_str(), 0), 0);
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"hello"}, {"raw", "hello"}, {"watch"}}) {
        expect_failure(run_tool(words, as_others), NO_PERMISSION, "permission");
    }
}

TEST(ctl, a_server_that_does_not_answer_is_status_5_after_the_timeout) {
    const OtherServer server;
    for (const char* const command : {"hello", "list"}) {
        const ProgramRun run = run_tool({path_with_socket(OTHER_SOCKET), "--timeout", "0.4", command});
        expect_failure(run, NO_REPLY, "did not answer in time");
        EXPECT_GE(run.took, Milliseconds{400});
        EXPECT_LT(run.took, scaled(Milliseconds{4000}));
    }
}

TEST(ctl, an_invalid_answer_is_status_5) {
    struct Case {
        Bytes answer;
        const char* reason;
    };
    Bytes hello_of_3 = control_reply({0, "hello", "How are you?"});
    hello_of_3[2] = 3;
    for (const Case& row :
         {Case{"HTTP/1.1 400 Bad Request\r\n\r\n", "is not a reply"}, Case{hello_of_3, "is not a reply"},
          Case{control_frame("short"), "is not a reply"}, Case{"", "closed the connection"},
          Case{"CS", "is not a reply"}}) {
        const OtherServer server(row.answer);
        expect_failure(run_tool({path_with_socket(OTHER_SOCKET), "hello"}), NO_REPLY, row.reason);
    }
}

TEST(ctl, a_list_that_cannot_be_read_is_status_5) {
    const OtherServer server(control_reply({0, "list connections", "", {{"connection", "garbage"}}}));
    expect_failure(run_tool({path_with_socket(OTHER_SOCKET), "list"}), NO_REPLY, "cannot be read");
}

TEST(ctl, an_error_status_is_status_1) {
    const OtherServer server(control_reply({CONTROL_ERROR, "hello", "no"}));
    expect_failure(run_tool({path_with_socket(OTHER_SOCKET), "hello"}), NEGATIVE_ANSWER,
                   "the server refused: no");
}

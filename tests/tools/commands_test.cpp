// The subcommands against a server that answers like the real one. Standard output and error are captured;
// standard error is not a terminal then, so no question is asked.
#include "tools/v9_rtmp_ctl/commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <filesystem>
#include <mutex>

#include "tests/tools/fake_server.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* CAM1_PUBLISHER = "0\tcam1\tpublish\t640x360\t10\t20\t10.0.0.1:1";
constexpr const char* CAM1_PLAYER = "3\tcam1\tplay\t640x360\t30\t40\t10.0.0.2:2";
constexpr const char* UNNAMED = "9\t\t\t\t0\t0\t10.0.0.3:3";

struct Outcome {
    int exit_code = -1;
    std::string out;
    std::string err;
};

class commands_test : public testing::Test {
  protected:
    commands_test() { settings.socket_path = server.path(); }

    std::optional<Reply> answer(const Request& request, bool async) {
        const std::lock_guard lock(mutex);
        requests.push_back(request);
        if (async) {
            return std::nullopt;
        }
        if (request.command == "list connections") {
            Reply reply{0, request.command, "Connection list response", {{"connection field order", "..."}}};
            if (!later_lines.empty()) {
                lines = later_lines.front();
                later_lines.erase(later_lines.begin());
                if (later_lines.empty() && ends_after_last_listing) {
                    pthread_kill(main_thread, SIGTERM);
                }
            }
            for (const std::string& line : lines) {
                reply.pairs.emplace_back("connection", line);
            }
            return reply;
        }
        return answers_drops ? std::optional(Reply{status, request.command, message, {}}) : std::nullopt;
    }

    // The requests other than listings.
    std::vector<Request> other_requests() {
        const std::lock_guard lock(mutex);
        std::vector<Request> others = requests;
        std::erase_if(others, [](const Request& r) { return r.command == "list connections"; });
        return others;
    }

    template <typename Run>
    static Outcome outcome_of(const Run& run) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Outcome outcome;
        outcome.exit_code = static_cast<int>(run());
        outcome.out = testing::internal::GetCapturedStdout();
        outcome.err = testing::internal::GetCapturedStderr();
        return outcome;
    }

    Outcome drop_id(const DropOptions& options) {
        return outcome_of([&] { return run_drop_id(settings, options); });
    }
    Outcome drop_stream(const DropOptions& options) {
        return outcome_of([&] { return run_drop_stream(settings, options); });
    }
    Outcome list(const ListOptions& options) {
        return outcome_of([&] { return run_list(settings, options); });
    }

    std::mutex mutex;
    std::vector<Request> requests;
    std::vector<std::string> lines{CAM1_PUBLISHER, CAM1_PLAYER, UNNAMED};
    std::vector<std::vector<std::string>> later_lines;  // of the next listings, one each
    bool ends_after_last_listing = false;               // a command that runs until SIGTERM
    const pthread_t main_thread = pthread_self();
    bool answers_drops = true;
    std::uint64_t status = 0;
    std::string message = "OK";
    Settings settings;
    FakeServer server{[this](const Request& request, bool async) { return answer(request, async); }};
};

DropOptions of_id(std::string id) {
    DropOptions options;
    options.ids = {std::move(id)};
    return options;
}

DropOptions of_stream(std::string stream, bool force) {
    DropOptions options;
    options.selection.streams = {std::move(stream)};
    options.force = force;
    return options;
}

}  // namespace

TEST_F(commands_test, hello_prints_the_greeting) {
    message = "How are you?";
    EXPECT_THAT(outcome_of([&] { return run_hello(settings); }).out,
                StartsWith("How are you? (answered in "));
    settings.form = OutputForm::JSON;
    EXPECT_THAT(outcome_of([&] { return run_hello(settings); }).out,
                StartsWith(R"({"greeting":"How are you?","round_trip_ms":)"));
    settings.form = OutputForm::PEOPLE;
    settings.quiet = true;
    EXPECT_EQ(outcome_of([&] { return run_hello(settings); }).out, "");
}

TEST_F(commands_test, check_names_the_slots_if_the_last_was_taken_before_the_handshake) {
    CheckOptions options;
    options.rtmp = "127.0.0.1:1";
    std::vector<std::string> full;
    for (unsigned id = 0; id < SLOT_COUNT; ++id) {
        full.push_back(std::to_string(id) + "\tcam1\tplay\t\t30\t40\t10.0.0.2:2");
    }
    later_lines = {{CAM1_PUBLISHER}, full};
    const Outcome outcome = outcome_of([&] { return run_check(settings, options); });
    EXPECT_THAT(outcome.out, HasSubstr("critical: slots: 128 of 128 slots are used"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("1 of 128 slots are used")));
    EXPECT_THAT(outcome.out, HasSubstr("critical: RTMP: 127.0.0.1:1: "));
}

TEST_F(commands_test, an_error_status_is_exit_code_one) {
    status = 6;
    message = "Unknown command";
    const Outcome outcome = outcome_of([&] { return run_hello(settings); });
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("Unknown command"));
}

TEST_F(commands_test, list_prints_a_table_fields_or_a_document) {
    EXPECT_EQ(list({}).out,
              "ID  STREAM  MODE        SIZE  SENT  RECEIVED  ADDRESS\n"
              " 0  cam1    publish  640x360  10 B      20 B  10.0.0.1:1\n"
              " 3  cam1    play     640x360  30 B      40 B  10.0.0.2:2\n"
              " 9  -       -              -   0 B       0 B  10.0.0.3:3\n"
              "3 of 128 slots used\n");
    settings.form = OutputForm::PLAIN;
    EXPECT_EQ(list({}).out, std::string(CAM1_PUBLISHER) + "\n" + CAM1_PLAYER + "\n" + UNNAMED + "\n");
    settings.form = OutputForm::JSON;
    EXPECT_THAT(list({}).out, StartsWith(R"({"slots":128,"connections":[{"id":0,)"));
}

TEST_F(commands_test, list_without_legend_is_only_the_rows) {
    ListOptions options;
    options.selection.streams = {"cam1"};
    options.no_legend = true;
    EXPECT_EQ(list(options).out,
              "0  cam1  publish  640x360  10 B  20 B  10.0.0.1:1\n"
              "3  cam1  play     640x360  30 B  40 B  10.0.0.2:2\n");
}

TEST_F(commands_test, list_filters_mode_none_in_the_tool_and_other_modes_on_the_server) {
    settings.form = OutputForm::PLAIN;
    ListOptions options;
    options.selection.mode = "none";
    EXPECT_EQ(list(options).out, std::string(UNNAMED) + "\n");
    options.selection.mode = "play";
    EXPECT_EQ(list(options).exit_code, 0);
    EXPECT_THAT(requests[0].arguments, IsEmpty());
    EXPECT_THAT(requests[1].arguments, ElementsAre("play"));
}

TEST_F(commands_test, list_reports_that_nothing_matches) {
    ListOptions options;
    options.selection.streams = {"cam2"};
    EXPECT_EQ(list(options).exit_code, 1);
    EXPECT_THAT(list(options).err, HasSubstr("no connection matches"));
    lines.clear();
    EXPECT_EQ(list({}).exit_code, 0);
}

TEST_F(commands_test, a_listing_that_cannot_be_read_is_exit_code_five) {
    lines = {"what"};
    const Outcome outcome = list({});
    EXPECT_EQ(outcome.exit_code, 5);
    EXPECT_EQ(outcome.out, "");
}

TEST_F(commands_test, raw_prints_any_reply) {
    status = 6;
    message = "Unknown command";
    RawOptions options;
    options.request = {"bogus", {"a", ""}};
    const Outcome outcome = outcome_of([&] { return run_raw(settings, options); });
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(outcome.out,
              "{\"status\": 6, \"command\": \"bogus\", \"message\": \"Unknown command\", \"pairs\": []}\n");
    EXPECT_THAT(requests[0].arguments, ElementsAre("a", ""));
}

TEST_F(commands_test, raw_async_only_sends) {
    RawOptions options;
    options.async = true;
    options.request = {"hello", {}};
    const Outcome outcome = outcome_of([&] { return run_raw(settings, options); });
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(commands_test, drop_id_sends_the_stream_name_as_guard) {
    const Outcome outcome = drop_id(of_id("3"));
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(outcome.out, "dropped connection 3 of stream 'cam1'\n");
    ASSERT_EQ(other_requests().size(), 1U);
    EXPECT_THAT(other_requests()[0].arguments, ElementsAre("3", "cam1"));
}

TEST_F(commands_test, drop_id_of_a_connection_without_stream_has_no_guard) {
    EXPECT_EQ(drop_id(of_id("9")).exit_code, 0);
    ASSERT_EQ(other_requests().size(), 1U);
    EXPECT_THAT(other_requests()[0].arguments, ElementsAre("9"));
}

TEST_F(commands_test, drop_id_sends_the_name_that_the_user_expects) {
    message = "Stream name does not match";
    DropOptions options = of_id("3");
    options.expected_stream = "cam2";
    const Outcome outcome = drop_id(options);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.err, HasSubstr("was kept"));
    EXPECT_THAT(other_requests()[0].arguments, ElementsAre("3", "cam2"));
    options.expected_stream = "";
    EXPECT_EQ(drop_id(options).exit_code, 2);
}

TEST_F(commands_test, drop_id_of_an_empty_slot_matches_nothing) {
    EXPECT_EQ(drop_id(of_id("5")).exit_code, 1);
    EXPECT_THAT(other_requests(), IsEmpty());
}

TEST_F(commands_test, a_bad_id_is_never_sent) {
    for (const char* id : {"5x", "x5", "-1", "128", ""}) {
        EXPECT_EQ(drop_id(of_id(id)).exit_code, 2) << id;
    }
    EXPECT_THAT(requests, IsEmpty());
}

TEST_F(commands_test, drop_id_is_sent_between_two_listings) {
    EXPECT_EQ(drop_id(of_id("3")).exit_code, 0);
    std::vector<std::string> commands;
    for (const Request& request : requests) {
        commands.push_back(request.command);
    }
    EXPECT_THAT(commands, ElementsAre("list connections", "list connections", "drop connection by id",
                                      "list connections"));
}

TEST_F(commands_test, drops_of_long_names_share_the_listing_between_them) {
    const auto line = [](char id, char letter) {
        return std::string(1, id) + "\t" + std::string(60000, letter) + "\tpublish\t\t1\t2\t10.0.0.1:1";
    };
    lines = {line('0', 'a'), line('1', 'b'), line('2', 'c')};
    DropOptions options;
    options.ids = {"0", "1", "2"};
    EXPECT_EQ(drop_id(options).exit_code, 0);
    std::vector<std::string> commands;
    for (const Request& request : requests) {
        commands.push_back(request.command.substr(0, 4));
    }
    EXPECT_THAT(commands, ElementsAre("list", "list", "drop", "list", "drop", "list", "drop", "list"));
}

TEST_F(commands_test, drop_id_names_the_client_it_dropped_when_the_slot_got_another_one) {
    const std::string newcomer = "3\tcam1\tplay\t\t0\t0\t10.0.0.9:9";
    later_lines = {lines, {newcomer}, {newcomer}};
    const Outcome outcome = drop_id(of_id("3"));
    EXPECT_EQ(outcome.exit_code, 6);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err,
                HasSubstr("another client was dropped. Id 3 when it was looked up: play of 'cam1' from "
                          "10.0.0.2:2; when it was dropped: play of 'cam1' from 10.0.0.9:9."));
}

TEST_F(commands_test, drop_id_warns_that_it_may_have_dropped_another_client) {
    const std::string newcomer = "9\t\t\t\t0\t0\t10.0.0.9:9";
    settings.form = OutputForm::JSON;
    later_lines = {lines, lines, {newcomer}};
    const Outcome outcome = drop_id(of_id("9"));
    EXPECT_EQ(outcome.exit_code, 6);
    EXPECT_EQ(outcome.out,
              "{\"dropped\":0,\"dry_run\":false,\"message\":\"OK\",\"ids\":[],\"uncertain\":[9]}\n");
    EXPECT_THAT(
        outcome.err,
        HasSubstr("a client was dropped, but it is not certain which one. Id 9 before the drop: without "
                  "a stream, from 10.0.0.3:3; after it: without a stream, from 10.0.0.9:9."));
}

TEST_F(commands_test, the_watchdog_counts_a_drop_as_a_miss_when_the_slot_got_another_client) {
    const std::string newcomer = "9\t\t\t\t0\t0\t10.0.0.9:9";
    WatchdogOptions options;
    options.limits.unnamed_us = 1;
    options.interval_seconds = 0.1;
    options.state_directory = make_directory();
    // Two polls until the client is old enough; then the listings before and after its drop.
    later_lines = {{UNNAMED},  {UNNAMED},  {UNNAMED},  {newcomer}, {newcomer},
                   {newcomer}, {newcomer}, {newcomer}, {}};
    ends_after_last_listing = true;
    const Outcome outcome = outcome_of([&] { return run_watchdog(settings, options); });
    std::filesystem::remove_all(options.state_directory);
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out,
                testing::MatchesRegex("missed 9, .* from 10\\.0\\.0\\.3:3: .*\\(misses so far: 1\\).*\n"
                                      "dropped 9, .* from 10\\.0\\.0\\.9:9: .*\\(misses so far: 1\\)\n"));
}

TEST_F(commands_test, the_watchdog_names_the_client_that_left_after_a_drop_without_reply) {
    WatchdogOptions options;
    options.limits.unnamed_us = 1;
    options.interval_seconds = 0.1;
    options.state_directory = make_directory();
    settings.timeout_seconds = 0.2;
    answers_drops = false;
    // Two polls until the clients are old enough, the listings around the drops, then a listing of who
    // has stayed.
    const std::string stays = "7\t\t\t\t0\t0\t10.0.0.7:7";
    later_lines = {{UNNAMED, stays}, {UNNAMED, stays}, {UNNAMED, stays}, {UNNAMED, stays}, {stays}};
    ends_after_last_listing = true;
    const Outcome outcome = outcome_of([&] { return run_watchdog(settings, options); });
    std::filesystem::remove_all(options.state_directory);
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_THAT(outcome.err, HasSubstr("v9_rtmp_ctl: "));
    EXPECT_THAT(outcome.out, testing::MatchesRegex("missed 9, .* from 10\\.0\\.0\\.3:3: .*\\(misses so far: "
                                                   "1\\); the drop got no reply, and the client has left\n"));
}

TEST_F(commands_test, all_of_several_ids_are_tried_and_the_worst_status_is_returned) {
    DropOptions options;
    options.ids = {"3", "5", "0", "3", "200"};
    const Outcome outcome = drop_id(options);
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.out, "dropped connection 3 of stream 'cam1'\ndropped connection 0 of stream 'cam1'\n");
    EXPECT_THAT(outcome.err, HasSubstr("there is no connection 5"));
    EXPECT_THAT(outcome.err, HasSubstr("'200' is not a connection id"));
    EXPECT_EQ(other_requests().size(), 2U);
    settings.form = OutputForm::PLAIN;
    options.ids = {"3", "5"};
    EXPECT_EQ(drop_id(options).out, "1\n");
}

TEST_F(commands_test, the_document_for_several_ids_has_no_single_message) {
    settings.form = OutputForm::JSON;
    EXPECT_THAT(drop_id(of_id("3")).out, HasSubstr(R"("message":"OK")"));
    DropOptions options;
    options.ids = {"0", "3"};
    EXPECT_THAT(drop_id(options).out, HasSubstr(R"("message":null,"ids":[0,3])"));
}

TEST_F(commands_test, drop_id_that_sends_nothing_leaves_nothing_unknown) {
    DropOptions options = of_id("3");
    options.no_list = true;
    settings.socket_path = server.path() + "_missing";
    const Outcome unsent = drop_id(options);
    EXPECT_EQ(unsent.exit_code, 3);
    EXPECT_THAT(unsent.err, Not(HasSubstr("is not known")));
    settings.socket_path = server.path();
    later_lines = {lines, {"garbage"}, {"garbage"}};
    EXPECT_THAT(drop_id(of_id("3")).err, HasSubstr("Connections may have been dropped"));
}

TEST_F(commands_test, drop_stream_without_a_reply_may_have_dropped_connections) {
    settings.timeout_seconds = 0.2;
    answers_drops = false;
    const Outcome outcome = drop_stream(of_stream("cam1", true));
    EXPECT_EQ(outcome.exit_code, 5);
    EXPECT_THAT(outcome.err, HasSubstr("Connections may have been dropped: see 'v9_rtmp_ctl list'."));
}

TEST_F(commands_test, drop_id_without_list_needs_no_list) {
    DropOptions options = of_id("3");
    options.no_list = true;
    EXPECT_EQ(drop_id(options).out, "dropped connection 3\n");
    options.expected_stream = "cam1";
    EXPECT_EQ(drop_id(options).exit_code, 0);
    EXPECT_EQ(requests.size(), 2U);
    EXPECT_THAT(requests[1].arguments, ElementsAre("3", "cam1"));
}

TEST_F(commands_test, a_dry_run_of_ids_shows_them_and_drops_nothing) {
    settings.form = OutputForm::PLAIN;
    DropOptions options;
    options.ids = {"3", "7"};
    options.dry_run = true;
    const Outcome outcome = drop_id(options);
    EXPECT_EQ(outcome.out, std::string(CAM1_PLAYER) + "\n");
    EXPECT_EQ(outcome.exit_code, 1);
    options.ids = {"3"};
    options.expected_stream = "cam2";
    EXPECT_THAT(drop_id(options).err, HasSubstr("connection 3 does not belong to stream 'cam2'"));
    EXPECT_THAT(other_requests(), IsEmpty());
}

TEST_F(commands_test, drop_address_drops_connections_from_there) {
    DropOptions options;
    options.selection.addresses = {*parse_address_range("10.0.0.2/31")};
    options.dry_run = true;
    EXPECT_THAT(outcome_of([&] { return run_drop_address(settings, options); }).out,
                HasSubstr("would drop 2 connections\n"));
    options.dry_run = false;
    EXPECT_EQ(outcome_of([&] { return run_drop_address(settings, options); }).exit_code, 2);
    options.force = true;
    EXPECT_EQ(outcome_of([&] { return run_drop_address(settings, options); }).out,
              "dropped connection 3 of stream 'cam1'\ndropped connection 9\n");
    EXPECT_EQ(other_requests().size(), 2U);
    options.selection.addresses = {*parse_address_range("192.0.2.0/24")};
    EXPECT_EQ(outcome_of([&] { return run_drop_address(settings, options); }).exit_code, 1);
}

TEST_F(commands_test, drop_stream_takes_patterns_and_modes) {
    message = "OK, 2 connections dropped";
    EXPECT_EQ(drop_stream(of_stream("c*", true)).out, "dropped 2 connections\n");
    EXPECT_THAT(other_requests()[0].arguments, ElementsAre("cam1"));
    message = "OK";
    DropOptions options = of_stream("c*", true);
    options.selection.mode = "play";
    EXPECT_EQ(drop_stream(options).out, "dropped connection 3 of stream 'cam1'\n");
    EXPECT_THAT(other_requests()[1].arguments, ElementsAre("3", "cam1"));
    options = of_stream("cam1", true);
    options.selection.streams.push_back("cam2");
    options.dry_run = true;
    const Outcome outcome = drop_stream(options);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.out, HasSubstr("would drop 2"));
    EXPECT_THAT(outcome.err, HasSubstr("no connection publishes or plays 'cam2'"));
}

TEST_F(commands_test, streams_can_be_named) {
    settings.form = OutputForm::PLAIN;
    StreamsOptions options;
    options.names = {"cam?"};
    EXPECT_EQ(outcome_of([&] { return run_streams(settings, options); }).out,
              "cam1\t0\t1\t640x360\t0\t0\t\n");
    options.names = {"demo"};
    const Outcome outcome = outcome_of([&] { return run_streams(settings, options); });
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.out, "");
}

TEST_F(commands_test, streams_without_legend_is_only_the_rows) {
    lines.push_back("5\tcam1\tpublish\t\t0\t99\t10.0.0.5:5");
    StreamsOptions options;
    const std::string row = "cam1  0? 10.0.0.1:1  1  640x360  0 B/s  0 B/s  5\n";
    options.no_legend = true;
    EXPECT_EQ(outcome_of([&] { return run_streams(settings, options); }).out, row);
    options.no_legend = false;
    EXPECT_THAT(
        outcome_of([&] { return run_streams(settings, options); }).out,
        testing::EndsWith("\n? marks a guess: the server does not report which publisher it relays.\n"));
}

TEST_F(commands_test, drop_stream_needs_force_without_a_terminal) {
    const Outcome outcome = drop_stream(of_stream("cam1", false));
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_THAT(outcome.err, HasSubstr("--force"));
    EXPECT_THAT(other_requests(), IsEmpty());
}

TEST_F(commands_test, drop_stream_forced_prints_how_many_were_dropped) {
    message = "OK, 2 connections dropped";
    EXPECT_EQ(drop_stream(of_stream("cam1", true)).out, "dropped 2 connections\n");
    ASSERT_EQ(other_requests().size(), 1U);
    EXPECT_EQ(other_requests()[0].command, "drop connection by stream name");
    EXPECT_THAT(other_requests()[0].arguments, ElementsAre("cam1"));
    settings.quiet = true;
    EXPECT_EQ(drop_stream(of_stream("cam1", true)).out, "");
    settings.form = OutputForm::JSON;
    EXPECT_EQ(drop_stream(of_stream("cam1", true)).out,
              "{\"dropped\":2,\"dry_run\":false,\"message\":\"OK, 2 connections dropped\"}\n");
}

TEST_F(commands_test, drop_stream_that_ended_meanwhile_matches_nothing) {
    message = "OK, 0 connections dropped";
    EXPECT_EQ(drop_stream(of_stream("cam1", true)).exit_code, 1);
}

TEST_F(commands_test, drop_stream_of_an_unknown_name_matches_nothing) {
    EXPECT_EQ(drop_stream(of_stream("cam2", true)).exit_code, 1);
    EXPECT_THAT(other_requests(), IsEmpty());
}

TEST_F(commands_test, a_dry_run_drops_nothing) {
    DropOptions options = of_stream("cam1", true);
    options.dry_run = true;
    const Outcome outcome = drop_stream(options);
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_THAT(outcome.out, HasSubstr("would drop 2 connections\n"));
    EXPECT_THAT(other_requests(), IsEmpty());
}

TEST_F(commands_test, the_empty_name_is_dropped_only_as_unnamed) {
    message = "OK, 1 connections dropped";
    const Outcome refused = drop_stream(of_stream("", true));
    EXPECT_EQ(refused.exit_code, 2);
    EXPECT_THAT(refused.err, HasSubstr("drop unnamed"));
    EXPECT_THAT(requests, IsEmpty());

    DropOptions options;
    EXPECT_EQ(outcome_of([&] { return run_drop_unnamed(settings, options); }).exit_code, 2);
    options.force = true;
    EXPECT_EQ(outcome_of([&] { return run_drop_unnamed(settings, options); }).out, "dropped 1 connection\n");
    EXPECT_THAT(other_requests()[0].arguments, ElementsAre(""));
}

TEST_F(commands_test, drop_unnamed_says_whether_one_address_or_several_match_nothing) {
    DropOptions options;
    options.force = true;
    options.selection.addresses = {*parse_address_range("10.0.0.1")};
    EXPECT_THAT(outcome_of([&] { return run_drop_unnamed(settings, options); }).err,
                HasSubstr("no connection from this address is without a stream."));
    options.selection.addresses = {*parse_address_range("10.0.0.0/30")};
    lines = {CAM1_PLAYER};
    EXPECT_THAT(outcome_of([&] { return run_drop_unnamed(settings, options); }).err,
                HasSubstr("no connection from these addresses is without a stream."));
}

TEST_F(commands_test, every_completion_script_is_printed) {
    EXPECT_THAT(outcome_of([] { return run_completion("bash"); }).out,
                HasSubstr("complete -o nosort -F _v9_rtmp_ctl v9_rtmp_ctl"));
    EXPECT_THAT(outcome_of([] { return run_completion("zsh"); }).out, StartsWith("#compdef v9_rtmp_ctl"));
    EXPECT_THAT(outcome_of([] { return run_completion("fish"); }).out, HasSubstr("complete -c v9_rtmp_ctl"));
    EXPECT_EQ(outcome_of([] { return run_completion("csh"); }).exit_code, 2);
}

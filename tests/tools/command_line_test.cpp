#include "tools/v9_rtmp_ctl/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

namespace {

using Words = std::vector<std::string>;

// Expects that the words are understood.
CommandLine parsed(const Words& words) {
    CommandLine line;
    const std::optional<Failure> failure = parse_command_line(words, line);
    EXPECT_FALSE(failure) << failure->message;
    return line;
}

// Expects that they are not.
Failure refused(const Words& words) {
    CommandLine line;
    const std::optional<Failure> failure = parse_command_line(words, line);
    if (!failure) {
        ADD_FAILURE() << "was understood: " << testing::PrintToString(words);
        return {};
    }
    return *failure;
}

}  // namespace

TEST(command_line, every_subcommand_is_known) {
    struct Row {
        Words words;
        Subcommand subcommand;
    };
    const Row rows[] = {
        {{"hello"}, Subcommand::HELLO},
        {{"list"}, Subcommand::LIST},
        {{"streams"}, Subcommand::STREAMS},
        {{"drop", "id", "5"}, Subcommand::DROP_ID},
        {{"drop", "stream", "cam1"}, Subcommand::DROP_STREAM},
        {{"drop", "address", "10.0.0.1"}, Subcommand::DROP_ADDRESS},
        {{"drop", "unnamed"}, Subcommand::DROP_UNNAMED},
        {{"watch"}, Subcommand::WATCH},
        {{"watchdog"}, Subcommand::WATCHDOG},
        {{"events"}, Subcommand::EVENTS},
        {{"check"}, Subcommand::CHECK},
        {{"metrics"}, Subcommand::METRICS},
        {{"serve"}, Subcommand::SERVE},
        {{"raw", "hello"}, Subcommand::RAW},
        {{"completion", "bash"}, Subcommand::COMPLETION},
        {{"version"}, Subcommand::VERSION},
        {{"--version"}, Subcommand::VERSION},
        {{"list", "-V"}, Subcommand::VERSION},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(parsed(row.words).subcommand, row.subcommand) << testing::PrintToString(row.words);
    }
}

TEST(command_line, without_options_the_defaults_apply) {
    const CommandLine line = parsed({"list"});
    EXPECT_EQ(line.settings.socket_path, "/var/run/v9_rtmp_server.socket");
    EXPECT_EQ(line.settings.timeout_us(), 5000000U);
    EXPECT_EQ(line.settings.form, OutputForm::PEOPLE);
    EXPECT_FALSE(line.settings.no_color);
    EXPECT_FALSE(line.settings.quiet);
    EXPECT_EQ(line.settings.unit, RateUnit::BYTES);
    EXPECT_TRUE(line.list.selection.is_everything());
    EXPECT_FALSE(line.list.reverse);
    EXPECT_EQ(line.list.sort, SortKey::ID);
    EXPECT_EQ(parsed({"watch"}).watch.interval_seconds, 1);
}

TEST(command_line, global_options_may_come_before_or_after_the_subcommand) {
    for (const Words& words :
         {Words{"--socket", "/s", "--timeout", "0.25", "--unit", "bits", "--json", "--no-color", "-q",
                "list"},
          Words{"list", "--socket=/s", "--timeout=0.25", "--unit=bits", "--json", "--no-color", "--quiet"}}) {
        const CommandLine line = parsed(words);
        EXPECT_EQ(line.settings.socket_path, "/s");
        EXPECT_EQ(line.settings.timeout_us(), 250000U);
        EXPECT_EQ(line.settings.form, OutputForm::JSON);
        EXPECT_TRUE(line.settings.no_color);
        EXPECT_TRUE(line.settings.quiet);
        EXPECT_EQ(line.settings.unit, RateUnit::BITS);
    }
    EXPECT_EQ(parsed({"drop", "unnamed", "-f", "--plain"}).settings.form, OutputForm::PLAIN);
}

TEST(command_line, list_is_filtered_and_sorted) {
    const CommandLine line = parsed({"list", "--mode", "none", "--stream", "cam1", "--stream", "d*",
                                     "--address", "10.0.0.0/8", "--sort", "rate", "-r", "--no-legend"});
    EXPECT_THAT(line.list.selection.mode, Optional(std::string("none")));
    EXPECT_THAT(line.list.selection.streams, ElementsAre("cam1", "d*"));
    EXPECT_THAT(line.list.selection.addresses, ElementsAre(*parse_address_range("10.0.0.0/8")));
    EXPECT_EQ(line.list.sort, SortKey::RATE);
    EXPECT_TRUE(line.list.reverse);
    EXPECT_TRUE(line.list.no_legend);
    EXPECT_EQ(parsed({"list", "--sort", "stream"}).list.sort, SortKey::STREAM);
    EXPECT_THAT(parsed({"list", "--stream", ""}).list.selection.streams, ElementsAre(""));
}

TEST(command_line, streams_takes_names_and_an_order) {
    const CommandLine line = parsed({"streams", "cam1", "d*", "--sort", "rate", "--reverse", "--no-legend"});
    EXPECT_THAT(line.streams.names, ElementsAre("cam1", "d*"));
    EXPECT_EQ(line.streams.sort, SortKey::RATE);
    EXPECT_TRUE(line.streams.reverse);
    EXPECT_TRUE(line.streams.no_legend);
    EXPECT_EQ(parsed({"streams"}).streams.sort, SortKey::STREAM);
}

TEST(command_line, drop_takes_what_to_drop) {
    const CommandLine by_id = parsed({"drop", "id", "5", "7", "--stream", "cam1"});
    EXPECT_THAT(by_id.drop.ids, ElementsAre("5", "7"));
    EXPECT_THAT(by_id.drop.expected_stream, Optional(std::string("cam1")));
    EXPECT_TRUE(by_id.drop.selection.is_everything());
    EXPECT_TRUE(parsed({"drop", "id", "5", "--no-list"}).drop.no_list);
    EXPECT_THAT(parsed({"drop", "id", "-1"}).drop.ids,
                ElementsAre("-1"));  // refused later, by the rule for ids
    const CommandLine by_name = parsed({"drop", "stream", "cam1", "d*", "--mode", "play", "-n", "-f"});
    EXPECT_THAT(by_name.drop.selection.streams, ElementsAre("cam1", "d*"));
    EXPECT_THAT(by_name.drop.selection.mode, Optional(std::string("play")));
    EXPECT_TRUE(by_name.drop.dry_run);
    EXPECT_TRUE(by_name.drop.force);
    EXPECT_THAT(parsed({"drop", "stream", ""}).drop.selection.streams, ElementsAre(""));
    const CommandLine by_address = parsed({"drop", "address", "10.0.0.0/8", "192.0.2.1", "--stream", "d*"});
    EXPECT_EQ(by_address.drop.selection.addresses.size(), 2U);
    EXPECT_THAT(by_address.drop.selection.streams, ElementsAre("d*"));
    EXPECT_TRUE(parsed({"drop", "unnamed", "--force"}).drop.force);
    for (const Words& words : {Words{"drop", "id", "5", "-n"}, Words{"drop", "unnamed", "--dry-run"},
                               Words{"drop", "address", "10.0.0.1", "-n"}}) {
        EXPECT_TRUE(parsed(words).drop.dry_run) << testing::PrintToString(words);
    }
}

TEST(command_line, the_socket_may_be_set_in_the_environment) {
    setenv("V9_RTMP_SOCKET", "/run/mine", 1);
    EXPECT_EQ(parsed({"list"}).settings.socket_path, "/run/mine");
    EXPECT_EQ(parsed({"raw", "hello"}).settings.socket_path, "/run/mine");
    EXPECT_EQ(parsed({"list", "--socket", "/s"}).settings.socket_path, "/s");
    setenv("V9_RTMP_SOCKET", "", 1);
    EXPECT_EQ(parsed({"list"}).settings.socket_path, DEFAULT_SOCKET_PATH);
    unsetenv("V9_RTMP_SOCKET");
}

TEST(command_line, an_error_says_what_to_do) {
    struct Row {
        Words words;
        const char* advice;
    };
    const Row rows[] = {
        {{}, "'v9_rtmp_ctl help' shows all commands"},
        {{"drop"}, "'drop stream cam1', 'drop address 203.0.113.0/24'"},
        {{"drop", "id"}, "'drop id' needs an argument: ID. Try 'v9_rtmp_ctl help drop id'."},
        {{"strems"}, "there is no command 'strems'. Did you mean 'streams'?"},
        {{"drop", "adress", "10.0.0.1"}, "Did you mean 'address'?"},
        {{"bogus"}, "there is no command 'bogus'. Try"},
        {{"list", "--strem", "x"}, "'list' has no option '--strem'. Did you mean '--stream'?"},
        {{"list", "--modes=x"}, "Did you mean '--mode'?"},
        {{"list", "one"}, "'list' does not take 'one'. Omit it. Try 'v9_rtmp_ctl help list'."},
        {{"list", "one", "two", "three"}, "'list' does not take 'one' 'two' 'three'. Omit them. Try"},
        {{"--timeout", "0", "hello"}, "'0' is not a number of seconds from 0.001 to 86400."},
        {{"watch", "--interval", "0"}, "'0' is not a number of seconds from 0.1 to 86400."},
        {{"list", "--mode", "all"}, "'all' is not one of publish, play, none."},
        {{"drop", "address", "10.0.0"}, "or a prefix such as 203.0.113.0/24."},
        {{"help", "drop", "streams"}, "Did you mean 'stream'?"},
        {{"drop", "ids", "5"}, "'drop' has no command 'ids'. Did you mean 'id'?"},
        {{"help", "list", "extra"}, "'list' has no command 'extra'."},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(refused(row.words).message, HasSubstr(row.advice)) << testing::PrintToString(row.words);
    }
}

TEST(command_line, an_invalid_command_line_is_a_usage_error_with_a_hint) {
    for (const Words& words : {Words{},
                               Words{"bogus"},
                               Words{"--bogus", "list"},
                               Words{"list", "extra"},
                               Words{"list", "--mode", "all"},
                               Words{"list", "--sort", "age"},
                               Words{"--json", "--plain", "list"},
                               Words{"--timeout", "0", "hello"},
                               Words{"--timeout", "-1", "hello"},
                               Words{"--timeout", "nan", "hello"},
                               Words{"--timeout", "soon", "hello"},
                               Words{"--timeout", "1e9", "hello"},
                               Words{"--timeout"},
                               Words{"drop"},
                               Words{"drop", "id"},
                               Words{"drop", "id", "1", "--no-list", "--dry-run"},
                               Words{"drop", "address"},
                               Words{"drop", "address", "10.0.0.0/33"},
                               Words{"--unit", "octets", "list"},
                               Words{"drop", "stream"},
                               Words{"drop", "unnamed", "x"},
                               Words{"watch", "--interval", "0"},
                               Words{"watch", "--plain"},
                               Words{"raw"},
                               Words{"raw", "--async"},
                               Words{"raw", "--"},
                               Words{"raw", "--bogus", "hello"},
                               Words{"completion"},
                               Words{"completion", "tcsh"},
                               Words{"help", "bogus"}}) {
        const Failure failure = refused(words);
        EXPECT_EQ(failure.exit_code, ExitCode::USAGE) << testing::PrintToString(words);
        EXPECT_THAT(failure.message, HasSubstr("v9_rtmp_ctl")) << testing::PrintToString(words);
    }
}

TEST(command_line, help_exists_for_the_tool_and_its_commands) {
    for (const Words& words : {Words{"help"}, Words{"--help"}, Words{"-h"}}) {
        const CommandLine line = parsed(words);
        EXPECT_EQ(line.subcommand, Subcommand::NONE);
        EXPECT_THAT(line.help_text, HasSubstr("streams"));
        EXPECT_THAT(line.help_text, HasSubstr("--socket"));
    }
    EXPECT_THAT(parsed({"help", "list"}).help_text, HasSubstr("v9_rtmp_ctl list"));
    EXPECT_THAT(parsed({"help", "drop", "id"}).help_text, HasSubstr("v9_rtmp_ctl drop id"));
    EXPECT_THAT(parsed({"drop", "id", "--help"}).help_text, HasSubstr("--no-list"));
    EXPECT_THAT(parsed({"list", "--help"}).help_text, HasSubstr("--no-legend"));
    EXPECT_THAT(parsed({"raw", "-h"}).help_text, HasSubstr("--async"));
}

TEST(raw_command_line, arguments_are_passed_as_given) {
    struct Row {
        Words words;
        std::string command;
        Words arguments;
    };
    const Row rows[] = {
        {{"raw", "hello"}, "hello", {}},
        {{"raw", ""}, "", {}},
        {{"raw", "-"}, "-", {}},
        {{"raw", "drop connection by id", "-1"}, "drop connection by id", {"-1"}},
        {{"raw", "c", "", "a", ""}, "c", {"", "a", ""}},
        {{"raw", "c", "--json", "--socket", "x", "-q", "--async"},
         "c",
         {"--json", "--socket", "x", "-q", "--async"}},
        {{"raw", "c", "raw", "list"}, "c", {"raw", "list"}},
        // One mark before the command ends the tool's options; everything after it is an argument.
        {{"raw", "--", "--c", "--a"}, "--c", {"--a"}},
        {{"raw", "c", "--", "-1"}, "c", {"--", "-1"}},
        {{"raw", "c", "--"}, "c", {"--"}},
        {{"raw", "--", "--", "c"}, "--", {"c"}},
        {{"raw", "--", "c", "--", "a"}, "c", {"--", "a"}},
        {{"raw", "c", "a", "--", "b"}, "c", {"a", "--", "b"}},
    };
    for (const Row& row : rows) {
        const CommandLine line = parsed(row.words);
        EXPECT_EQ(line.subcommand, Subcommand::RAW);
        EXPECT_EQ(line.raw.request.command, row.command) << testing::PrintToString(row.words);
        EXPECT_EQ(line.raw.request.arguments, row.arguments) << testing::PrintToString(row.words);
        EXPECT_FALSE(line.raw.async);
        EXPECT_EQ(line.settings.form, OutputForm::PEOPLE);
    }
}

TEST(raw_command_line, options_of_the_tool_come_before_the_command) {
    const CommandLine line =
        parsed({"--socket", "/s", "-q", "raw", "--async", "--timeout", "2", "c", "--socket", "/t"});
    EXPECT_EQ(line.settings.socket_path, "/s");
    EXPECT_EQ(line.settings.timeout_us(), 2000000U);
    EXPECT_TRUE(line.settings.quiet);
    EXPECT_TRUE(line.raw.async);
    EXPECT_THAT(line.raw.request.arguments, ElementsAre("--socket", "/t"));
}

TEST(raw_command_line, a_socket_called_raw_is_not_a_subcommand) {
    const CommandLine line = parsed({"--socket", "raw", "hello"});
    EXPECT_EQ(line.subcommand, Subcommand::HELLO);
    EXPECT_EQ(line.settings.socket_path, "raw");
    EXPECT_THAT(line.raw.request.arguments, IsEmpty());
}

namespace {

// A file of options that is removed after the test.
class ConfigFile {
  public:
    explicit ConfigFile(const std::string& text) { std::ofstream(path) << text; }
    ~ConfigFile() { std::filesystem::remove(path); }
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

    const std::string path = testing::TempDir() + "watchdog_" +
                             testing::UnitTest::GetInstance()->current_test_info()->name() + ".conf";
};

}  // namespace

TEST(command_line, the_watchdogs_rules_have_defaults) {
    const WatchdogOptions options = parsed({"watchdog"}).watchdog;
    EXPECT_THAT(options.limits.stalled_us, Optional(30000000U));
    EXPECT_THAT(options.limits.behind_us, Optional(15000000U));
    EXPECT_THAT(options.limits.unnamed_us, Optional(20000000U));
    EXPECT_THAT(options.limits.silent_us, Optional(30000000U));
    EXPECT_THAT(options.limits.contested_us, Optional(15000000U));
    EXPECT_THAT(options.limits.age_us, Optional(16200000000U));
    EXPECT_THAT(options.limits.long_name_bytes, Optional(200U));
    EXPECT_THAT(options.limits.publish_from, IsEmpty());
    EXPECT_EQ(options.limits.stagger_us, 4000000U);
    EXPECT_EQ(options.interval_seconds, 1);
    EXPECT_EQ(options.settle_seconds, 5);
    EXPECT_FALSE(options.dry_run);
    EXPECT_EQ(options.state_directory, "/run/v9_rtmp_watchdog");
}

TEST(command_line, each_rule_of_the_watchdog_can_be_set_and_turned_off) {
    using Limit = std::optional<std::uint64_t> WatchdogLimits::*;
    const std::pair<const char*, Limit> rows[] = {
        {"--stalled", &WatchdogLimits::stalled_us},     {"--behind", &WatchdogLimits::behind_us},
        {"--unnamed", &WatchdogLimits::unnamed_us},     {"--silent", &WatchdogLimits::silent_us},
        {"--contested", &WatchdogLimits::contested_us}, {"--age", &WatchdogLimits::age_us},
    };
    for (const auto& [name, limit] : rows) {
        EXPECT_THAT(parsed({"watchdog", name, "4.5"}).watchdog.limits.*limit, Optional(4500000U)) << name;
        EXPECT_EQ(parsed({"watchdog", name, "off"}).watchdog.limits.*limit, std::nullopt) << name;
        for (const char* const bad : {"", "0", "-1", "nan", "86401", "on", "5s"}) {
            EXPECT_EQ(refused({"watchdog", name, bad}).exit_code, ExitCode::USAGE) << name << bad;
        }
    }
    EXPECT_THAT(parsed({"watchdog", "--long-name", "64"}).watchdog.limits.long_name_bytes, Optional(64U));
    EXPECT_EQ(parsed({"watchdog", "--long-name", "off"}).watchdog.limits.long_name_bytes, std::nullopt);
    EXPECT_EQ(refused({"watchdog", "--long-name", "-1"}).exit_code, ExitCode::USAGE);
    EXPECT_EQ(parsed({"watchdog", "--stagger", "0.5"}).watchdog.limits.stagger_us, 500000U);
    EXPECT_EQ(parsed({"watchdog", "--stagger", "1e-400"}).watchdog.limits.stagger_us, 0U);
    EXPECT_TRUE(parsed({"watchdog", "-n"}).watchdog.dry_run);
    EXPECT_THAT(refused({"watchdog", "--stalled", "x"}).message,
                HasSubstr("'x' is neither 'off' nor a number of seconds from 0.1 to 86400"));
}

TEST(command_line, rules_that_compare_need_four_polls) {
    EXPECT_EQ(parsed({"watchdog", "--interval", "3.75"}).watchdog.interval_seconds, 3.75);
    for (const Words& words : {Words{"watchdog", "--interval", "3.8"}, Words{"watchdog", "--stalled", "3.9"},
                               Words{"watchdog", "--behind", "3.9"}}) {
        EXPECT_THAT(refused(words).message, HasSubstr("must be at least 4 times --interval"));
    }
    EXPECT_EQ(parsed({"watchdog", "--interval", "10", "--behind", "off", "--stalled", "40"})
                  .watchdog.limits.behind_us,
              std::nullopt);
}

TEST(command_line, the_watchdog_takes_addresses_of_publishers) {
    const AddressRange near = *parse_address_range("10.0.0.0/8");
    const AddressRange one = *parse_address_range("192.0.2.1");
    EXPECT_THAT(
        parsed({"watchdog", "--publish-from", "10.0.0.0/8", "192.0.2.1"}).watchdog.limits.publish_from,
        ElementsAre(near, one));
    EXPECT_THAT(parsed({"watchdog", "--publish-from", "10.0.0.0/8", "--publish-from", "192.0.2.1", "-n"})
                    .watchdog.limits.publish_from,
                ElementsAre(near, one));
    EXPECT_THAT(refused({"watchdog", "--publish-from", "example"}).message,
                HasSubstr("is not an IPv4 address"));
}

TEST(command_line, the_watchdog_reads_options_from_a_file_and_the_command_line_overrides_them) {
    const ConfigFile file(
        "# limits\n; more\nstalled = 40\nbehind=off\n\nsilent = 50\npublish-from = 10.0.0.0/8 192.0.2.1\n"
        "state = \"/run/other place\"\ndry-run = true\n");
    const CommandLine line = parsed({"--timeout", "2", "watchdog", "--config", file.path, "--silent", "60"});
    const WatchdogOptions& options = line.watchdog;
    EXPECT_EQ(line.subcommand, Subcommand::WATCHDOG);
    EXPECT_EQ(line.settings.timeout_us(), 2000000U);
    EXPECT_THAT(options.limits.stalled_us, Optional(40000000U));
    EXPECT_EQ(options.limits.behind_us, std::nullopt);
    EXPECT_THAT(options.limits.silent_us, Optional(60000000U));
    EXPECT_THAT(options.limits.contested_us, Optional(15000000U));
    EXPECT_THAT(options.limits.publish_from,
                ElementsAre(*parse_address_range("10.0.0.0/8"), *parse_address_range("192.0.2.1")));
    EXPECT_EQ(options.state_directory, "/run/other place");
    EXPECT_TRUE(options.dry_run);
}

TEST(command_line, publisher_addresses_on_the_command_line_replace_those_of_the_file) {
    const ConfigFile file("publish-from = 10.0.0.0/8 192.0.2.1\n");
    const CommandLine line = parsed({"watchdog", "--config", file.path, "--publish-from", "192.0.2.7"});
    EXPECT_THAT(line.watchdog.limits.publish_from, ElementsAre(*parse_address_range("192.0.2.7")));
    const ConfigFile bad("publish-from = example\n");
    EXPECT_THAT(refused({"watchdog", "--config", bad.path, "--publish-from", "192.0.2.7"}).message,
                HasSubstr("is not an IPv4 address"));
}

TEST(command_line, an_empty_file_of_options_changes_nothing) {
    const ConfigFile file("\n# nothing\n");
    EXPECT_THAT(parsed({"watchdog", "--config", file.path}).watchdog.limits.stalled_us, Optional(30000000U));
}

TEST(command_line, a_file_of_options_that_cannot_be_read_or_is_invalid_is_refused_with_its_name) {
    EXPECT_THAT(refused({"watchdog", "--config", "/absent.conf"}).message,
                HasSubstr("the options in /absent.conf cannot be read (No such file or directory)"));
    for (const char* const text : {"stalled = x\n", "stallled = 30\n", "[rules]\nstalled = 30\n",
                                   "--stalled = 30\n", "stalled 30\n", "config = /other\n", "= 3\n"}) {
        const ConfigFile file(text);
        const Failure failure = refused({"watchdog", "--config", file.path});
        EXPECT_EQ(failure.exit_code, ExitCode::USAGE) << text;
        EXPECT_THAT(failure.message, HasSubstr("in " + file.path + ": ")) << text;
    }
}

TEST(command_line, the_watchdog_has_no_plain_form) {
    EXPECT_THAT(refused({"watchdog", "--plain"}).message, HasSubstr("watchdog has no --plain form"));
}

TEST(command_line, events_can_run_a_program) {
    const CommandLine line =
        parsed({"events", "--exec", "/usr/local/bin/tell me", "--interval", "0.2", "--json"});
    EXPECT_EQ(line.events.program, "/usr/local/bin/tell me");
    EXPECT_EQ(line.events.interval_seconds, 0.2);
    EXPECT_EQ(parsed({"events"}).events.program, "");
    EXPECT_THAT(refused({"events", "--plain"}).message, HasSubstr("events has no --plain form"));
}

TEST(command_line, check_takes_an_address) {
    const CommandLine line = parsed({"check", "--rtmp", "relay.example:1936", "--publish-test"});
    EXPECT_EQ(line.check.rtmp, "relay.example:1936");
    EXPECT_TRUE(line.check.publish_test);
    EXPECT_EQ(parsed({"check"}).check.rtmp, "127.0.0.1:1935");
    EXPECT_FALSE(parsed({"check"}).check.publish_test);
    for (const char* const bad : {"", "host", ":1935", "host:", "host:0", "host:65536", "host:x"}) {
        EXPECT_THAT(refused({"check", "--rtmp", bad}).message, HasSubstr("is not a host and a port")) << bad;
    }
}

TEST(command_line, a_usage_error_of_check_is_status_unknown) {
    EXPECT_EQ(failure_status({"check", "--foo"}, ExitCode::USAGE), 3);
    EXPECT_EQ(failure_status({"--timeout", "1", "check", "x"}, ExitCode::USAGE), 3);
    EXPECT_EQ(failure_status({"list", "check"}, ExitCode::USAGE), 2);
    EXPECT_EQ(failure_status({}, ExitCode::USAGE), 2);
}

TEST(command_line, a_failure_of_check_itself_is_status_unknown_and_not_a_warning) {
    EXPECT_EQ(failure_status({"check"}, ExitCode::NEGATIVE_ANSWER), 3);
    EXPECT_EQ(failure_status({"check"}, ExitCode::NO_REPLY), 3);
    EXPECT_EQ(failure_status({"list"}, ExitCode::NEGATIVE_ANSWER), 1);
    EXPECT_EQ(failure_status({"list"}, ExitCode::NO_REPLY), 5);
}

TEST(command_line, serve_listens_on_loopback_by_default) {
    const ServeOptions usual = parsed({"serve"}).serve;
    EXPECT_EQ(usual.listen, "127.0.0.1:9935");
    EXPECT_FALSE(usual.allow_drop);
    const ServeOptions options =
        parsed({"serve", "--listen", "[::]:80", "--host", "a.example", "--host", "b.example", "--allow-drop",
                "--token-file", "/etc/token", "--watchdog-state", "/run/w"})
            .serve;
    EXPECT_EQ(options.listen, "[::]:80");
    EXPECT_THAT(options.host_names, ElementsAre("a.example", "b.example"));
    EXPECT_TRUE(options.allow_drop);
    EXPECT_EQ(options.token_file, "/etc/token");
    EXPECT_EQ(options.watchdog_state, "/run/w");
    EXPECT_THAT(refused({"serve", "--listen", "localhost:80"}).message,
                HasSubstr("'localhost:80' is not an address and a port"));
}

TEST(command_line, a_drop_from_the_page_needs_a_token) {
    EXPECT_THAT(refused({"serve", "--allow-drop"}).message, HasSubstr("go together"));
    EXPECT_THAT(refused({"serve", "--token-file", "/etc/token"}).message, HasSubstr("go together"));
}

TEST(command_line, metrics_at_an_interval_need_a_file) {
    EXPECT_THAT(refused({"metrics", "--interval", "15"}).message, HasSubstr("needs a file to write"));
    const MetricsOptions options = parsed({"metrics", "-o", "x.prom", "--interval", "15"}).metrics;
    EXPECT_EQ(options.file, "x.prom");
    EXPECT_THAT(options.interval_seconds, Optional(15));
    EXPECT_FALSE(parsed({"metrics", "--output=x"}).metrics.interval_seconds);
}

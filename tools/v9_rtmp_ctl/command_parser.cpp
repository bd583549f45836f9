#include "tools/v9_rtmp_ctl/command_parser.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <utility>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/option_checks.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/serve_options.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/usage_failure.h"

namespace {

constexpr double MIN_TIMEOUT_SECONDS = 0.001;
const std::array<const char*, 3> OPTIONS_WITH_VALUE{"--socket", "--timeout", "--unit"};

CLI::Validator one_of(const std::vector<std::string>& words) {
    return CLI::Validator(
        [words](const std::string& text) {
            return std::find(words.begin(), words.end(), text) != words.end()
                       ? std::string()
                       : "'" + escape_untrusted(text) + "' is not one of " + CLI::detail::join(words, ", ");
        },
        "");
}

// Lets the option be repeated, with one value each time.
void repeatable(CLI::Option& option) {
    option.allow_extra_args(false)->take_all();
}

CLI::App* find_subcommand(const CLI::App& parent, const std::string& name) {
    const std::vector<CLI::App*> all =
        const_cast<CLI::App&>(parent).get_subcommands([](CLI::App* /*any*/) { return true; });
    const auto match =
        std::find_if(all.begin(), all.end(), [&name](const CLI::App* s) { return s->get_name() == name; });
    return match == all.end() ? nullptr : *match;
}

std::vector<std::string> subcommand_names(const CLI::App& parent) {
    std::vector<std::string> names;
    for (const CLI::App* subcommand : parent.get_subcommands([](const CLI::App* /*any*/) { return true; })) {
        names.push_back(subcommand->get_name());
    }
    return names;
}

void append_option_names(const CLI::App& command, std::vector<std::string>& names) {
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
}

}  // namespace

bool takes_value(const std::string& global_option) {
    return std::find(OPTIONS_WITH_VALUE.begin(), OPTIONS_WITH_VALUE.end(), global_option) !=
           OPTIONS_WITH_VALUE.end();
}

CommandParser::CommandParser(CommandLine& target) : line(target) {
    app.require_subcommand(0, 1);
    app.fallthrough();
    add_global_options();
    add("hello", Subcommand::HELLO, "Greet the server and check which processes listen on its port");
    add_list();
    add_streams();
    add_drop();
    add_watch();
    add_metrics();
    add_serve();
    add_watchdog();
    add_events();
    add_check();
    add_raw();
    add_completion();
    add("version", Subcommand::VERSION, "Print the version of this tool");
    add_help();
    app.footer("\nSee 'v9_rtmp_ctl help COMMAND' and v9_rtmp_ctl(1).");
}

std::optional<Failure> CommandParser::parse(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());
    try {
        app.parse(std::move(words));
    } catch (const CLI::CallForHelp&) {
        line.subcommand = Subcommand::NONE;
        line.help_text = app.help();  // for the chosen subcommand, or for the tool
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return explain(error);
    }
    store_results();
    if (version) {
        line.subcommand = Subcommand::VERSION;
    }
    if (line.subcommand != Subcommand::NONE || help_asked) {
        return std::nullopt;
    }
    return app.get_subcommands().empty() ? nothing_to_do() : nothing_to_drop();
}

void CommandParser::store_results() {
    line.settings.form = json ? OutputForm::JSON : plain ? OutputForm::PLAIN : OutputForm::PEOPLE;
    line.settings.unit = unit == "bits" ? RateUnit::BITS : RateUnit::BYTES;
    line.list.sort = sort == "rate" ? SortKey::RATE : sort == "stream" ? SortKey::STREAM : SortKey::ID;
    line.list.reverse = reverse;
    line.list.no_legend = no_legend;
    line.streams.names = streams;
    line.streams.sort = sort == "rate" ? SortKey::RATE : SortKey::STREAM;
    line.streams.reverse = reverse;
    line.streams.no_legend = no_legend;
    Selection& selection = line.list.selection;
    selection.streams = streams;
    for (const std::string& address : addresses) {
        selection.addresses.push_back(*parse_address_range(address));
    }
    if (!mode.empty()) {
        selection.mode = mode;
    }
    line.watch.selection = selection;
    line.drop.selection = selection;
    line.watchdog.limits = read_limits(watchdog_texts);
    if (drop_id_stream->count() != 0) {
        line.drop.expected_stream = expected_stream;
    }
}

std::optional<Failure> CommandParser::find_help(const std::vector<std::string>& topic,
                                                std::string& text) const {
    const CLI::App* found = &app;
    std::string parents;
    for (const std::string& word : topic) {
        const CLI::App* const next = find_subcommand(*found, word);
        if (next == nullptr) {
            return unknown_command(found == &app ? "" : found->get_name(), word, subcommand_names(*found));
        }
        parents += (parents.empty() ? "" : " ") + found->get_name();
        found = next;
    }
    text = found->help(parents);
    return std::nullopt;
}

// Returns, for example, "drop id". Empty if no subcommand was found.
std::string CommandParser::chosen() const {
    std::string path;
    for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
        at = at->get_subcommands().front();
        path += (path.empty() ? "" : " ") + at->get_name();
    }
    return path;
}

Failure CommandParser::explain(const CLI::ParseError& error) const {
    const std::vector<std::string> extras = app.remaining(true);
    if (!extras.empty() && dynamic_cast<const CLI::ValidationError*>(&error) == nullptr) {
        return explain_extras(extras);
    }
    const std::string reason = error.what();
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        // reason is, for example, "ID is required".
        return usage_failure("'" + chosen() + "' needs an argument: " + reason.substr(0, reason.find(' ')),
                             chosen());
    }
    return usage_failure(reason, chosen());
}

Failure CommandParser::explain_extras(const std::vector<std::string>& words) const {
    const std::string command = chosen();
    const std::string& first = words.front();
    if (first.size() > 1 && first[0] == '-') {
        std::vector<std::string> names;
        append_option_names(app, names);
        for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
            at = at->get_subcommands().front();
            append_option_names(*at, names);
        }
        return unknown_option(command, first, names);
    }
    if (command.empty()) {
        return unknown_command("", first, subcommand_names(app));
    }
    if (command == "drop") {
        return unknown_command(command, first, subcommand_names(*app.get_subcommands().front()));
    }
    return too_many_words(command, words);
}

CLI::App* CommandParser::add(CLI::App& parent, const std::string& name, Subcommand subcommand,
                             const std::string& text) {
    CLI::App* const command = parent.add_subcommand(name, text);
    command->fallthrough();
    command->footer(
        "\nSee 'v9_rtmp_ctl help' for the options that every command takes, and v9_rtmp_ctl(1) for the "
        "rest.");
    if (subcommand != Subcommand::NONE) {
        command->callback([this, subcommand] { line.subcommand = subcommand; });
    }
    return command;
}

CLI::App* CommandParser::add(const std::string& name, Subcommand subcommand, const std::string& text) {
    return add(app, name, subcommand, text);
}

void CommandParser::add_global_options() {
    Settings& s = line.settings;
    app.set_help_flag("-h,--help", "Print this help");
    app.add_flag("-V,--version", version, "Print the version of this tool");
    app.add_option("--socket", s.socket_path, "The server's control socket")
        ->capture_default_str()
        ->type_name("PATH")
        ->envname("V9_RTMP_SOCKET");
    app.add_option("--timeout", s.timeout_seconds, "How long the server may be silent")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(seconds(MIN_TIMEOUT_SECONDS));
    app.add_option("--unit", unit, "Unit of rates; the default is bytes")
        ->type_name("bytes|bits")
        ->check(one_of({"bytes", "bits"}));
    CLI::Option* const json_option = app.add_flag("--json", json, "Print JSON");
    app.add_flag("--plain", plain, "Print fields separated by TABs")->excludes(json_option);
    app.add_flag("--no-color", s.no_color, "Print without color");
    app.add_flag("-q,--quiet", s.quiet, "Do not report what was done");
}

void CommandParser::add_stream_option(CLI::App& command) {
    repeatable(*command.add_option("--stream", streams, "Only those of this stream; * and ? are wildcards")
                    ->type_name("NAME"));
}

void CommandParser::add_address_option(CLI::App& command) {
    repeatable(*command.add_option("--address", addresses, "Only those from this address or prefix")
                    ->type_name("ADDRESS")
                    ->check(address_range()));
}

void CommandParser::add_mode_option(CLI::App& command) {
    command.add_option("--mode", mode, "Only those that publish, play, or do neither yet")
        ->type_name("publish|play|none")
        ->check(one_of({"publish", "play", "none"}));
}

void CommandParser::add_dry_run(CLI::App& command) {
    command.add_flag("-n,--dry-run", line.drop.dry_run, "Only show what would be dropped");
}

void CommandParser::add_force(CLI::App& command) {
    command.add_flag("-f,--force", line.drop.force, "Do not ask");
}

void CommandParser::add_sort(CLI::App& command, const std::vector<std::string>& keys,
                             const std::string& text) {
    command.add_option("--sort", sort, text)->type_name(CLI::detail::join(keys, "|"))->check(one_of(keys));
    command.add_flag("-r,--reverse", reverse, "Reverse the order");
    command.add_flag("--no-legend", no_legend, "Print neither the titles nor the count below the table");
}

void CommandParser::add_list() {
    CLI::App* const list = add("list", Subcommand::LIST, "List the connections");
    add_stream_option(*list);
    add_address_option(*list);
    add_mode_option(*list);
    add_sort(*list, {"id", "stream", "rate"}, "Order of the lines; rate takes a second to measure");
}

void CommandParser::add_streams() {
    CLI::App* const command = add("streams", Subcommand::STREAMS,
                                  "List the streams: publisher, players, picture size, rates, rivals");
    command->add_option("NAME", streams, "Only streams of these names; * and ? are wildcards")->type_name("");
    add_sort(*command, {"stream", "rate"}, "Order of the lines");
}

void CommandParser::add_drop_id(CLI::App& drop) {
    CLI::App* const id = add(drop, "id", Subcommand::DROP_ID, "Drop connections by their ids");
    id->add_option("ID", line.drop.ids, "Their ids in the list")->required()->type_name("");
    drop_id_stream = id->add_option("--stream", expected_stream, "Drop only connections of this stream")
                         ->type_name("NAME");
    add_dry_run(*id);
    id->add_flag("--no-list", line.drop.no_list, "Do not request the list before and after")
        ->excludes("--dry-run");
}

void CommandParser::add_drop() {
    CLI::App* const drop = add("drop", Subcommand::NONE, "Drop connections");
    add_drop_id(*drop);
    CLI::App* const by_name =
        add(*drop, "stream", Subcommand::DROP_STREAM, "Drop all connections of streams");
    by_name->add_option("NAME", streams, "The streams' names; * and ? are wildcards")
        ->required()
        ->type_name("");
    add_address_option(*by_name);
    add_mode_option(*by_name);
    CLI::App* const by_address =
        add(*drop, "address", Subcommand::DROP_ADDRESS, "Drop all connections from addresses");
    by_address->add_option("ADDRESS", addresses, "Addresses, or prefixes such as 203.0.113.0/24")
        ->required()
        ->type_name("")
        ->check(address_range());
    add_stream_option(*by_address);
    add_mode_option(*by_address);
    CLI::App* const unnamed =
        add(*drop, "unnamed", Subcommand::DROP_UNNAMED, "Drop all connections that have not chosen a stream");
    add_address_option(*unnamed);
    for (CLI::App* const command : {by_name, by_address, unnamed}) {
        add_dry_run(*command);
        add_force(*command);
    }
}

void CommandParser::add_watch() {
    CLI::App* const watch = add("watch", Subcommand::WATCH, "Show streams and connections live");
    watch->add_option("--interval", line.watch.interval_seconds, "Time between two listings")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(seconds(MIN_INTERVAL_SECONDS));
    add_stream_option(*watch);
    add_address_option(*watch);
    add_mode_option(*watch);
}

void CommandParser::add_metrics() {
    CLI::App* const metrics =
        add("metrics", Subcommand::METRICS, "Print metrics in the text format of Prometheus");
    add_metrics_options(*metrics, line.metrics);
}

void CommandParser::add_serve() {
    CLI::App* const serve = add("serve", Subcommand::SERVE, "Serve a status page and metrics over HTTP");
    add_serve_options(*serve, line.serve);
}

void CommandParser::add_watchdog() {
    CLI::App* const watchdog = add("watchdog", Subcommand::WATCHDOG,
                                   "Drop clients that stall, fall behind or hold a slot without using it");
    add_watchdog_options(*watchdog, line.watchdog, watchdog_texts);
}

void CommandParser::add_events() {
    CLI::App* const events =
        add("events", Subcommand::EVENTS,
            "Print a line when a client connects, publishes, plays, takes over or leaves");
    events->add_option("--interval", line.events.interval_seconds, "Time between two listings")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(seconds(MIN_INTERVAL_SECONDS));
    events
        ->add_option("--exec", line.events.program,
                     "Run this program for each event, with the event in its environment")
        ->type_name("PROGRAM");
}

void CommandParser::add_check() {
    CLI::App* const check =
        add("check", Subcommand::CHECK, "Report what is wrong with the server, or about to go wrong");
    check->add_option("--rtmp", line.check.rtmp, "Where the server accepts RTMP clients")
        ->capture_default_str()
        ->type_name("HOST:PORT")
        ->check(rtmp_address());
    check->add_flag("--publish-test", line.check.publish_test, "Send a short stream through the server");
}

void CommandParser::add_raw() {
    CLI::App* const raw = add("raw", Subcommand::RAW, "Send a command unchanged and print the reply as JSON");
    raw->footer(
        "\nv9_rtmp_ctl raw [--async] COMMAND [ARG...]\nEvery ARG is passed unchanged, even if it begins with "
        "'-'. A COMMAND that begins with '-' is sent with 'raw -- COMMAND'.");
    raw->add_flag("--async", line.raw.async, "Request no reply and print nothing");
}

void CommandParser::add_completion() {
    add("completion", Subcommand::COMPLETION, "Print the completion script for a shell")
        ->add_option("SHELL", line.shell, "bash, zsh or fish")
        ->required()
        ->type_name("")
        ->check(one_of({"bash", "zsh", "fish"}));
}

void CommandParser::add_help() {
    CLI::App* const help_command = app.add_subcommand("help", "Print help about a command");
    help_command->fallthrough();
    help_command->add_option("COMMAND", help_topic, "The command, such as list or drop id")->type_name("");
    help_command->callback([this] { help_asked = true; });
}

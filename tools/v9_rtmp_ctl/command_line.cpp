#include "tools/v9_rtmp_ctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <utility>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr double MAX_SECONDS = 86400;
constexpr double MIN_TIMEOUT_SECONDS = 0.001;
// The server answers ten times a second, so a shorter interval shows nothing new.
constexpr double MIN_INTERVAL_SECONDS = 0.1;

const std::array<const char*, 2> OPTIONS_WITH_VALUE{"--socket", "--timeout"};

bool takes_value(const std::string& word) {
    return std::find(OPTIONS_WITH_VALUE.begin(), OPTIONS_WITH_VALUE.end(), word) != OPTIONS_WITH_VALUE.end();
}

bool is_option(const std::string& word) {
    return word.size() > 1 && word[0] == '-' && word != "--";
}

// The first word from idx on that is neither an option nor an option's value.
std::size_t skip_options(const std::vector<std::string>& words, std::size_t idx) {
    while (idx < words.size() && is_option(words[idx])) {
        idx += takes_value(words[idx]) ? 2 : 1;
    }
    return std::min(idx, words.size());
}

CLI::Validator seconds(double min) {
    return CLI::Validator(
        [min](const std::string& text) {
            double value = 0;
            // Written so that a value that is no number fails too.
            const bool fits = CLI::detail::lexical_cast(text, value) && value >= min && value <= MAX_SECONDS;
            return fits ? std::string()
                        : "'" + escape_untrusted(text) + "' is no number of seconds that can be used here";
        },
        "");
}

// The parser of one command line. It writes into the CommandLine while it reads.
class Parser {
  public:
    explicit Parser(CommandLine& target) : line(target) {
        app.require_subcommand(0, 1);
        app.fallthrough();
        add_global_options();
        add("hello", Subcommand::HELLO, "Greet the server and tell how long its answer took");
        add_list();
        add("streams", Subcommand::STREAMS, "List the streams: publisher, players, picture, rates, rivals");
        add_drop();
        add_watch();
        add_raw();
        add_completion();
        add("version", Subcommand::VERSION, "Print the version of this tool");
        add_help();
        app.footer("\nSee 'v9_rtmp_ctl help COMMAND' and v9_rtmp_ctl(1).");
    }

    // Throws CLI::ParseError.
    void parse(std::vector<std::string> words) {
        std::reverse(words.begin(), words.end());
        app.parse(std::move(words));
        line.settings.form = json ? OutputForm::JSON : plain ? OutputForm::PLAIN : OutputForm::PEOPLE;
        line.list.sort = sort == "rate" ? SortKey::RATE : sort == "stream" ? SortKey::STREAM : SortKey::ID;
        line.list.mode = given(list_mode, mode);
        line.list.stream = given(list_stream, stream);
        line.drop.expected_stream = given(drop_id_stream, stream);
    }

    [[nodiscard]] std::optional<Failure> find_help(const std::string& topic, std::string& text) const {
        const CLI::App* found = &app;
        if (!topic.empty()) {
            const std::vector<const CLI::App*> all =
                app.get_subcommands([](const CLI::App* /*any*/) { return true; });
            const auto match = std::find_if(all.begin(), all.end(),
                                            [&topic](const CLI::App* s) { return s->get_name() == topic; });
            if (match == all.end()) {
                return Failure{ExitCode::USAGE, "there is no command '" + escape_untrusted(topic) +
                                                    "'. 'v9_rtmp_ctl help' names them all."};
            }
            found = *match;
        }
        text = found->help(topic.empty() ? "" : "v9_rtmp_ctl");
        return std::nullopt;
    }

    // Of the subcommand that was chosen, or of the tool.
    [[nodiscard]] std::string help() const { return app.help(); }

    bool help_asked = false;
    std::string help_topic;

  private:
    static std::optional<std::string> given(const CLI::Option* option, const std::string& value) {
        return option->count() != 0 ? std::optional(value) : std::nullopt;
    }

    CLI::App* add(CLI::App& parent, const std::string& name, Subcommand subcommand, const std::string& text) {
        CLI::App* const command = parent.add_subcommand(name, text);
        command->fallthrough();
        if (subcommand != Subcommand::NONE) {
            command->callback([this, subcommand] { line.subcommand = subcommand; });
        }
        return command;
    }

    CLI::App* add(const std::string& name, Subcommand subcommand, const std::string& text) {
        return add(app, name, subcommand, text);
    }

    void add_global_options() {
        Settings& s = line.settings;
        app.set_help_flag("-h,--help", "Print this help");
        app.add_option("--socket", s.socket_path, "The server's control socket")
            ->capture_default_str()
            ->type_name("PATH");
        app.add_option("--timeout", s.timeout_seconds, "How long to wait for an answer")
            ->capture_default_str()
            ->type_name("SECONDS")
            ->check(seconds(MIN_TIMEOUT_SECONDS));
        CLI::Option* const json_option = app.add_flag("--json", json, "Print JSON");
        app.add_flag("--plain", plain, "Print fields separated by TABs")->excludes(json_option);
        app.add_flag("--no-color", s.no_color, "Print without color");
        app.add_flag("-q,--quiet", s.quiet, "Say nothing about what was done");
    }

    void add_list() {
        CLI::App* const list = add("list", Subcommand::LIST, "List the connections");
        list_mode = list->add_option("--mode", mode, "Only those that publish, play, or do neither yet")
                        ->type_name("publish|play|none")
                        ->check(CLI::IsMember({"publish", "play", "none"}).description(""));
        list_stream = list->add_option("--stream", stream, "Only those of this stream")->type_name("NAME");
        list->add_option("--sort", sort, "Order of the lines; rate takes a second to measure")
            ->type_name("id|stream|rate")
            ->check(CLI::IsMember({"id", "stream", "rate"}).description(""));
        list->add_flag("--no-legend", line.list.no_legend, "Print neither titles nor the count");
    }

    void add_drop() {
        CLI::App* const drop = add("drop", Subcommand::NONE, "Drop connections");
        drop->require_subcommand(1);
        drop->footer(
            "\nv9_rtmp_ctl drop id ID [--stream NAME]\nv9_rtmp_ctl drop stream NAME [-n|--dry-run] "
            "[-f|--force]\n"
            "v9_rtmp_ctl drop unnamed [-f|--force]");
        CLI::App* const id = add(*drop, "id", Subcommand::DROP_ID, "Drop one connection");
        id->add_option("ID", line.drop.id, "Its number in the list")->required()->type_name("");
        drop_id_stream =
            id->add_option("--stream", stream, "Keep it if it is not of this stream")->type_name("NAME");
        CLI::App* const by_name =
            add(*drop, "stream", Subcommand::DROP_STREAM, "Drop all connections of a stream");
        by_name->add_option("NAME", line.drop.stream, "The stream's name")->required()->type_name("");
        by_name->add_flag("-n,--dry-run", line.drop.dry_run, "Only show what would be dropped");
        by_name->add_flag("-f,--force", line.drop.force, "Do not ask");
        add(*drop, "unnamed", Subcommand::DROP_UNNAMED, "Drop all connections that have not chosen a stream")
            ->add_flag("-f,--force", line.drop.force, "Do not ask");
    }

    void add_watch() {
        add("watch", Subcommand::WATCH, "Show streams and connections live")
            ->add_option("--interval", line.watch.interval_seconds, "Time from one look to the next")
            ->capture_default_str()
            ->type_name("SECONDS")
            ->check(seconds(MIN_INTERVAL_SECONDS));
    }

    void add_raw() {
        CLI::App* const raw =
            add("raw", Subcommand::RAW, "Send a command as it is and print the reply as JSON");
        raw->footer(
            "\nv9_rtmp_ctl raw [--async] COMMAND [ARG...]\nEvery ARG is passed as given, even if it begins "
            "with "
            "'-'. A COMMAND that does is sent with 'raw -- COMMAND'.");
        raw->add_flag("--async", line.raw.async, "Want no reply and print nothing");
    }

    void add_completion() {
        add("completion", Subcommand::COMPLETION, "Print the completion script of a shell")
            ->add_option("SHELL", line.shell, "bash, zsh or fish")
            ->required()
            ->type_name("")
            ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""));
    }

    void add_help() {
        CLI::App* const help_command = app.add_subcommand("help", "Print help about a command");
        help_command->fallthrough();
        help_command->add_option("COMMAND", help_topic, "The command")->type_name("");
        help_command->callback([this] { help_asked = true; });
    }

    CommandLine& line;
    CLI::App app{"Manages a running v9_rtmp_server through its control socket.", "v9_rtmp_ctl"};
    bool json = false;
    bool plain = false;
    std::string mode;
    std::string sort;
    std::string stream;
    CLI::Option* list_mode = nullptr;
    CLI::Option* list_stream = nullptr;
    CLI::Option* drop_id_stream = nullptr;
};

Failure usage_failure(const std::string& reason) {
    std::string text = escape_untrusted(reason);
    const bool ends_a_sentence = !text.empty() && text.back() == '.';
    return {ExitCode::USAGE, text + (ends_a_sentence ? "" : ".") + " Try 'v9_rtmp_ctl help'."};
}

std::optional<Failure> check_combinations(const CommandLine& line, bool has_request) {
    if (line.subcommand == Subcommand::RAW && !has_request) {
        return usage_failure("raw needs a COMMAND to send, for example: v9_rtmp_ctl raw hello");
    }
    if (line.subcommand == Subcommand::WATCH && line.settings.form == OutputForm::PLAIN) {
        return usage_failure(
            "watch has no --plain form; use 'watch --json', or 'list --plain' again and again");
    }
    return std::nullopt;
}

}  // namespace

SplitWords split_raw_words(const std::vector<std::string>& words) {
    SplitWords split;
    const std::size_t raw_idx = skip_options(words, 0);
    if (raw_idx == words.size() || words[raw_idx] != "raw") {
        split.own = words;
        return split;
    }
    std::size_t idx = skip_options(words, raw_idx + 1);
    const auto at = [&words](std::size_t i) { return words.begin() + static_cast<std::ptrdiff_t>(i); };
    split.own.assign(words.begin(), at(idx));
    if (idx < words.size() && words[idx] == "--") {
        ++idx;
    }
    if (idx < words.size()) {
        split.has_request = true;
        split.request.command = words[idx];
        split.request.arguments.assign(at(idx + 1), words.end());
    }
    return split;
}

std::optional<Failure> parse_command_line(const std::vector<std::string>& words, CommandLine& command_line) {
    SplitWords split = split_raw_words(words);
    Parser parser(command_line);
    try {
        parser.parse(split.own);
    } catch (const CLI::CallForHelp&) {
        command_line.subcommand = Subcommand::NONE;
        command_line.help_text = parser.help();
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return usage_failure(error.what());
    }
    if (parser.help_asked) {
        // A parser that has read something tells only about that.
        CommandLine unread;
        return Parser(unread).find_help(parser.help_topic, command_line.help_text);
    }
    if (command_line.subcommand == Subcommand::NONE) {
        return usage_failure("say what to do: hello, list, streams, drop, watch, raw, completion or version");
    }
    command_line.raw.request = std::move(split.request);
    return check_combinations(command_line, split.has_request);
}

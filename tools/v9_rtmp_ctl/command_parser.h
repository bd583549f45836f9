// The parser of one command line: options, subcommands and their help.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/command_line.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/watchdog_options.h"

// Whether the global option takes its value as a separate word.
[[nodiscard]] bool takes_value(const std::string& global_option);

class CommandParser {
  public:
    // The parser writes into target while it reads.
    explicit CommandParser(CommandLine& target);

    // Reads the words. Empty on success.
    [[nodiscard]] std::optional<Failure> parse(std::vector<std::string> words);

    // Finds the help for a subcommand ("drop id" is two words), or for the tool.
    [[nodiscard]] std::optional<Failure> find_help(const std::vector<std::string>& topic,
                                                   std::string& text) const;

    bool help_asked = false;
    std::vector<std::string> help_topic;

  private:
    CLI::App* add(CLI::App& parent, const std::string& name, Subcommand subcommand, const std::string& text);
    CLI::App* add(const std::string& name, Subcommand subcommand, const std::string& text);
    void add_global_options();
    void add_list();
    void add_streams();
    void add_drop();
    void add_drop_id(CLI::App& drop);
    void add_watch();
    void add_metrics();
    void add_serve();
    void add_watchdog();
    void add_events();
    void add_check();
    void add_raw();
    void add_completion();
    void add_help();
    void add_stream_option(CLI::App& command);
    void add_address_option(CLI::App& command);
    void add_mode_option(CLI::App& command);
    void add_dry_run(CLI::App& command);
    void add_force(CLI::App& command);
    void add_sort(CLI::App& command, const std::vector<std::string>& keys, const std::string& text);
    void store_results();
    [[nodiscard]] std::string chosen() const;
    [[nodiscard]] Failure explain(const CLI::ParseError& error) const;
    [[nodiscard]] Failure explain_extras(const std::vector<std::string>& words) const;

    CommandLine& line;
    CLI::App app{"Manages a running v9_rtmp_server through its control socket.", "v9_rtmp_ctl"};
    bool json = false;
    bool plain = false;
    bool version = false;
    std::string unit;
    std::string mode;
    std::string sort;
    std::vector<std::string> streams;
    std::vector<std::string> addresses;
    std::string expected_stream;
    WatchdogTexts watchdog_texts;
    CLI::Option* drop_id_stream = nullptr;
    bool reverse = false;
    bool no_legend = false;
};

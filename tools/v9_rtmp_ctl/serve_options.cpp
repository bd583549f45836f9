#include "tools/v9_rtmp_ctl/serve_options.h"

#include <string>

#include "tools/v9_rtmp_ctl/option_checks.h"

namespace {

void add_watchdog_state(CLI::App& command, std::string& directory) {
    command
        .add_option("--watchdog-state", directory,
                    "The watchdog's state directory, from which its drops are read")
        ->capture_default_str()
        ->type_name("DIRECTORY");
}

}  // namespace

void add_metrics_options(CLI::App& metrics, MetricsOptions& options) {
    metrics
        .add_option("-o,--output", options.file,
                    "Write the metrics to this file, which is replaced in one step")
        ->type_name("FILE");
    metrics
        .add_option("--interval", options.interval_seconds,
                    "Keep running and rewrite the file at this interval; without it, write once and exit")
        ->type_name("SECONDS")
        ->check(seconds(MIN_INTERVAL_SECONDS));
    add_watchdog_state(metrics, options.watchdog_state);
}

void add_serve_options(CLI::App& serve, ServeOptions& options) {
    serve.add_option("--listen", options.listen, "Where to listen; port 0 selects a free port")
        ->capture_default_str()
        ->type_name("ADDRESS:PORT")
        ->check(address_and_port());
    serve
        .add_option("--host", options.host_names,
                    "A host name that browsers may use to reach the page, besides addresses and localhost")
        ->type_name("NAME")
        ->allow_extra_args(false)
        ->take_all();
    serve.add_flag("--allow-drop", options.allow_drop, "Allow the page to drop connections, with the token");
    serve.add_option("--token-file", options.token_file, "The file with the token")->type_name("FILE");
    add_watchdog_state(serve, options.watchdog_state);
}

#include "tools/v9_rtmp_ctl/serve_options.h"

#include <string>

#include "tools/v9_rtmp_ctl/option_checks.h"

namespace {

void add_watchdog_state(CLI::App& command, std::string& directory) {
    command.add_option("--watchdog-state", directory, "The directory of the watchdog's state, for its drops")
        ->capture_default_str()
        ->type_name("DIRECTORY");
}

}  // namespace

void add_metrics_options(CLI::App& metrics, MetricsOptions& options) {
    metrics.add_option("-o,--output", options.file, "Write them to this file, which is replaced whole")
        ->type_name("FILE");
    metrics
        .add_option("--interval", options.interval_seconds,
                    "Go on, and write them anew each time; without it, only what one look shows")
        ->type_name("SECONDS")
        ->check(seconds(MIN_INTERVAL_SECONDS));
    add_watchdog_state(metrics, options.watchdog_state);
}

void add_serve_options(CLI::App& serve, ServeOptions& options) {
    serve.add_option("--listen", options.listen, "Where to listen; port 0 is any free one")
        ->capture_default_str()
        ->type_name("ADDRESS:PORT")
        ->check(address_and_port());
    serve
        .add_option("--host", options.host_names,
                    "A name under which browsers reach it, beside addresses and localhost")
        ->type_name("NAME")
        ->allow_extra_args(false)
        ->take_all();
    serve.add_flag("--allow-drop", options.allow_drop, "Let the page drop connections, with the token");
    serve.add_option("--token-file", options.token_file, "The file with the token")->type_name("FILE");
    add_watchdog_state(serve, options.watchdog_state);
}

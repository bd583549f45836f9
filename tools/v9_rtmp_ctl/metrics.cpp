#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/monitor.h"
#include "tools/v9_rtmp_ctl/state_file.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/time_units.h"
#include "tools/v9_rtmp_ctl/trouble.h"

namespace {

std::optional<Failure> write_metrics(const std::string& path, const std::string& text) {
    if (path.empty()) {
        std::cout << text << std::flush;
        return std::nullopt;
    }
    if (replace_file(path, text)) {
        return std::nullopt;
    }
    const std::string reason = errno == ENOTSUP
                                   ? ", because it is not a regular file. Omit --output to print them."
                                   : std::string(" (") + std::strerror(errno) +
                                         "). Check the directory; a temporary file is also created there.";
    return Failure{ExitCode::NEGATIVE_ANSWER,
                   "the metrics cannot be written to " + escape_untrusted(path) + reason};
}

}  // namespace

ExitCode run_metrics(const Settings& settings, const MetricsOptions& options) {
    Monitor monitor(settings.socket_path, settings.timeout_us(), options.watchdog_state,
                    static_cast<std::uint64_t>(options.interval_seconds.value_or(1) * US_PER_SECOND));
    if (!options.interval_seconds) {
        monitor.poll();
        const MonitorView& view = monitor.view();
        const std::optional<Failure> failure =
            write_metrics(options.file, metrics_of(view, MetricsSpan::ONE_POLL));
        if (failure) {
            return report(*failure);
        }
        return view.failure ? report(*view.failure) : ExitCode::DONE;
    }
    const std::chrono::microseconds every(static_cast<std::int64_t>(*options.interval_seconds * 1e6));
    Trouble server_trouble(settings.quiet);
    Trouble write_trouble(true);
    for (auto next = std::chrono::steady_clock::now();; std::this_thread::sleep_until(next)) {
        monitor.poll();
        server_trouble.take_in(monitor.view().failure);
        // A failed write does not end the loop: disk space may become free again, and the counters are kept.
        write_trouble.take_in(
            write_metrics(options.file, metrics_of(monitor.view(), MetricsSpan::ALL_POLLS)));
        next = std::max(next + every, std::chrono::steady_clock::now());
    }
}

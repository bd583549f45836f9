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
    Trouble trouble(settings.quiet);
    std::string told;
    for (auto next = std::chrono::steady_clock::now();; std::this_thread::sleep_until(next)) {
        monitor.poll();
        if (monitor.view().failure) {
            trouble.tell(*monitor.view().failure);
        } else {
            trouble.tell_end();
        }
        const std::optional<Failure> failure =
            write_metrics(options.file, metrics_of(monitor.view(), MetricsSpan::ALL_POLLS));
        // A failed write does not end the loop: disk space may become free again, and the counters are kept.
        if (failure && failure->message != told) {
            static_cast<void>(report(*failure));
        }
        told = failure ? failure->message : "";
        next = std::max(next + every, std::chrono::steady_clock::now());
    }
}

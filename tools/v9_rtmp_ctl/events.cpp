#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connection_events.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/hook.h"
#include "tools/v9_rtmp_ctl/stop_signals.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/trouble.h"

namespace {

std::string time_text(std::time_t now) {
    std::tm local{};
    std::array<char, 32> text{};
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local) == 0) {
        return "-";
    }
    return text.data();
}

void tell(const Settings& settings, const EventsOptions& options, const StopSignals& stop,
          const ConnectionEvent& event) {
    const std::time_t now = std::time(nullptr);
    if (settings.form == OutputForm::JSON) {
        std::cout << event_json(event, now) << std::endl;
    } else {
        std::cout << time_text(now) << ' ' << event_line(event) << std::endl;
    }
    if (options.program.empty()) {
        return;
    }
    if (const std::optional<std::string> problem =
            run_hook(options.program, event_variables(event), stop.mask_before())) {
        static_cast<void>(report({ExitCode::DONE, "warning: " + escape_untrusted(options.program) + " " +
                                                      *problem + "; the event was: " + event_line(event)}));
    }
}

}  // namespace

ExitCode run_events(const Settings& settings, const EventsOptions& options) {
    StopSignals stop;
    ControlClient client(settings.socket_path, settings.timeout_us());
    EventWatch watch;
    Trouble trouble(settings.quiet);
    const auto every_us = static_cast<std::uint64_t>(options.interval_seconds * 1e6);
    std::uint64_t next_us = clock_us();
    do {
        Listing listing;
        if (const std::optional<Failure> failure = take_listing(client, "", listing)) {
            if (failure->exit_code == ExitCode::USAGE) {
                return report(*failure);
            }
            trouble.tell(*failure);
        } else {
            trouble.tell_end();
            for (const ConnectionEvent& event : watch.take_in(listing)) {
                // A program may run for each event and take seconds, so look for a stop signal before each.
                if (stop.wait_until(0)) {
                    break;
                }
                tell(settings, options, stop, event);
            }
        }
        next_us = std::max(next_us + every_us, clock_us());
    } while (std::cout && !stop.wait_until(next_us));
    return ExitCode::DONE;
}

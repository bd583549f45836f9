#include "tools/v9_rtmp_ctl/watchdog_log.h"

#include <optional>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"

namespace {

const char* action_text(WatchdogAction action) {
    switch (action) {
        case WatchdogAction::WOULD_DROP:
            return "would drop";
        case WatchdogAction::DROPPED:
            return "dropped";
        case WatchdogAction::KEPT:
            return "kept";
        case WatchdogAction::MISSED:
            return "missed";
    }
    return "";
}

}  // namespace

WatchdogEvent event_of(const Verdict& verdict, const DropOutcome& outcome) {
    if (!outcome.failure) {
        return {WatchdogAction::DROPPED, verdict, ""};
    }
    const bool is_miss = outcome.failure->exit_code == ExitCode::ANOTHER_CLIENT;
    return {is_miss ? WatchdogAction::MISSED : WatchdogAction::KEPT, verdict, outcome.failure->message};
}

std::string event_line(const WatchdogEvent& event, std::uint64_t misses) {
    const Connection& target = event.verdict.target;
    std::string line = std::string(action_text(event.action)) + " " + std::to_string(target.id) + ", " +
                       describe(target) + ": " + rule_name(event.verdict.rule) + ": " + event.verdict.reason;
    if (target.stream.empty()) {
        line += "; such a drop is guarded only by the id, not by a name (misses so far: " +
                std::to_string(misses) + ")";
    }
    return event.message.empty() ? line : line + "; " + event.message;
}

std::string event_json(const WatchdogEvent& event, std::int64_t unix_seconds) {
    const Connection& target = event.verdict.target;
    const std::optional<std::string> message =
        event.message.empty() ? std::nullopt : std::optional(event.message);
    return watchdog_json({unix_seconds, action_text(event.action), rule_name(event.verdict.rule),
                          event.verdict.reason, target.id, target.stream, target.mode, target.address,
                          message});
}

#include <array>
#include <cstdio>
#include <iostream>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

std::string milliseconds(std::uint64_t us) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", static_cast<double>(us) / 1000);
    return text.data();
}

void print_greeting(const Settings& settings, const std::string& greeting, std::uint64_t round_trip_us) {
    switch (settings.form) {
        case OutputForm::PEOPLE:
            if (!settings.quiet) {
                std::cout << escape_untrusted(greeting) << " (answered in " << milliseconds(round_trip_us)
                          << " ms)\n";
            }
            break;
        case OutputForm::PLAIN:
            std::cout << escape_untrusted(greeting) << '\t' << milliseconds(round_trip_us) << '\n';
            break;
        case OutputForm::JSON:
            std::cout << hello_json(greeting, round_trip_us) << '\n';
            break;
    }
}

}  // namespace

ExitCode run_hello(const Settings& settings) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    if (const std::optional<Failure> failure = client.connect()) {
        return report(*failure);
    }
    const std::uint64_t sent_us = clock_us();
    Reply reply;
    if (const std::optional<Failure> failure = client.call({"hello", {}}, reply)) {
        return report(*failure);
    }
    const std::uint64_t round_trip_us = clock_us() - sent_us;
    if (reply.status != COMM_SOCKET_V4_STATUS_SUCCESS) {
        return report(refused_by_server(reply.message));
    }
    print_greeting(settings, reply.message, round_trip_us);
    return ExitCode::DONE;
}

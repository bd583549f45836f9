#include <comm_socket_v4.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/port_check.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

std::string milliseconds(std::uint64_t us) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", static_cast<double>(us) / 1000);
    return text.data();
}

void print_greeting(const Settings& settings, const Greeting& greeting, const PortCheck& port) {
    switch (settings.form) {
        case OutputForm::PEOPLE:
            if (!settings.quiet) {
                std::cout << escape_untrusted(greeting.text) << " (answered in "
                          << milliseconds(greeting.round_trip_us) << " ms)\n"
                          << port.gap << (port.gap.empty() ? "" : "\n");
            }
            break;
        case OutputForm::PLAIN:
            std::cout << escape_untrusted(greeting.text) << '\t' << milliseconds(greeting.round_trip_us)
                      << '\n';
            if (!settings.quiet && !port.gap.empty()) {
                static_cast<void>(report({ExitCode::DONE, port.gap}));
            }
            break;
        case OutputForm::JSON:
            std::cout << hello_json(greeting) << '\n';
            break;
    }
}

}  // namespace

ExitCode run_hello(const Settings& settings) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    if (const std::optional<Failure> failure = client.connect()) {
        return report(explain_no_connection(settings.socket_path, *failure));
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
    const PortCheck port = check_port(find_peer(client.fd()).value_or(Peer()));
    Greeting greeting{reply.message, round_trip_us, port.listeners, port.warnings};
    if (!port.gap.empty()) {
        greeting.notes.push_back(port.gap);
    }
    print_greeting(settings, greeting, port);
    for (const std::string& warning : port.warnings) {
        static_cast<void>(report({ExitCode::DONE, "warning: " + warning}));
    }
    return ExitCode::DONE;
}

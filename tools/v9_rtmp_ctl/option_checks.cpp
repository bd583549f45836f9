#include "tools/v9_rtmp_ctl/option_checks.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>

#include "tools/v9_rtmp_ctl/listen_address.h"
#include "tools/v9_rtmp_ctl/rtmp_probe.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr const char* OFF = "off";

// Returns the advice for an invalid number of seconds. Empty if the number is valid.
std::string advise(const std::string& text, double min, const char* is_not_a) {
    const std::optional<double> value = read_seconds(text);
    // In this form the test also fails for NaN.
    if (value && *value >= min && *value <= MAX_SECONDS) {
        return "";
    }
    std::ostringstream advice;
    advice << "'" << escape_untrusted(text) << "' " << is_not_a << " number of seconds from " << min << " to "
           << MAX_SECONDS;
    return advice.str();
}

}  // namespace

std::optional<double> read_seconds(const std::string& text) {
    double value = 0;
    return CLI::detail::lexical_cast(text, value) ? std::optional(value) : std::nullopt;
}

CLI::Validator seconds(double min) {
    return CLI::Validator([min](const std::string& text) { return advise(text, min, "is not a"); }, "");
}

CLI::Validator seconds_or_off(double min) {
    return CLI::Validator(
        [min](const std::string& text) {
            return text == OFF ? std::string() : advise(text, min, "is neither 'off' nor a");
        },
        "");
}

CLI::Validator address_range() {
    return CLI::Validator(
        [](const std::string& text) {
            return parse_address_range(text) ? std::string()
                                             : "'" + escape_untrusted(text) +
                                                   "' is not an IPv4 address. Give one such as 203.0.113.7 "
                                                   "or 203.0.113.7:50000, or a prefix such as 203.0.113.0/24";
        },
        "");
}

CLI::Validator address_and_port() {
    return CLI::Validator(
        [](const std::string& text) {
            return parse_listen_address(text) ? std::string()
                                              : "'" + escape_untrusted(text) +
                                                    "' is not an address and a port. Give both, such as "
                                                    "127.0.0.1:9935 or [::1]:9935";
        },
        "");
}

CLI::Validator rtmp_address() {
    return CLI::Validator(
        [](const std::string& text) {
            return parse_rtmp_address(text)
                       ? std::string()
                       : "'" + escape_untrusted(text) + "' is not a host and a port, such as 127.0.0.1:1935";
        },
        "");
}

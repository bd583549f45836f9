#include "tools/v9_rtmp_ctl/text.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace {

constexpr std::array<const char*, 7> UNITS{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
constexpr double UNIT_STEP = 1024;
// From here on one decimal place would show 1024.0.
constexpr double ROUNDS_UP = 1023.95;

std::string in_iec_units(double value, const char* suffix) {
    std::size_t unit = 0;
    // Whole bytes are shown without a decimal place, so they round up later than the other units.
    while (unit + 1 < UNITS.size() && value >= (unit == 0 ? UNIT_STEP - 0.5 : ROUNDS_UP)) {
        value /= UNIT_STEP;
        ++unit;
    }
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s%s" : "%.1f %s%s", value,
                                     UNITS[unit], suffix);
    return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace

std::string escape_untrusted(std::string_view text) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte <= 0x7E) {
            escaped += c;
        } else {
            escaped += "\\x";
            escaped += DIGITS[byte >> 4];
            escaped += DIGITS[byte & 0xF];
        }
    }
    return escaped;
}

std::string cut_text(std::string_view text, std::size_t width) {
    if (text.size() <= width) {
        return std::string(text);
    }
    return width == 0 ? std::string() : std::string(text.substr(0, width - 1)) + '~';
}

std::string format_bytes(std::optional<std::uint64_t> bytes) {
    return bytes ? in_iec_units(static_cast<double>(*bytes), "") : "-";
}

std::string format_rate(std::optional<double> bytes_per_second) {
    if (!bytes_per_second || !std::isfinite(*bytes_per_second) || *bytes_per_second < 0) {
        return "-";
    }
    return in_iec_units(*bytes_per_second, "/s");
}

#include "tools/v9_rtmp_ctl/text.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace {

// Names of a unit and its multiples, each step times the one before. Whole units are shown without a decimal place.
struct Scale {
    std::array<const char*, 7> names;
    double step;
};
constexpr Scale BYTE_SCALE{{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"}, 1024};
constexpr Scale BIT_SCALE{{"bit", "kbit", "Mbit", "Gbit", "Tbit", "Pbit", "Ebit"}, 1000};

std::string scaled(double value, const Scale& scale, const char* suffix) {
    // From the step on, less what rounds up to it.
    constexpr double WHOLE = 0.5;
    constexpr double ONE_PLACE = 0.05;
    std::size_t idx = 0;
    while (idx + 1 < scale.names.size() && value >= scale.step - (idx == 0 ? WHOLE : ONE_PLACE)) {
        value /= scale.step;
        ++idx;
    }
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), idx == 0 ? "%.0f %s%s" : "%.1f %s%s", value,
                                     scale.names.at(idx), suffix);
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
    return bytes ? scaled(static_cast<double>(*bytes), BYTE_SCALE, "") : "-";
}

double in_unit(double bytes_per_second, RateUnit unit) {
    constexpr double BITS_PER_BYTE = 8;
    return unit == RateUnit::BITS ? bytes_per_second * BITS_PER_BYTE : bytes_per_second;
}

std::string format_rate(std::optional<double> bytes_per_second, RateUnit unit) {
    if (!bytes_per_second || !std::isfinite(*bytes_per_second) || *bytes_per_second < 0) {
        return "-";
    }
    return scaled(in_unit(*bytes_per_second, unit), unit == RateUnit::BITS ? BIT_SCALE : BYTE_SCALE, "/s");
}

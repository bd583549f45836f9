#include "tools/v9_rtmp_ctl/text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace {

// The names of a unit and its multiples. Each multiple is the previous one times step. Values in the first
// unit are shown without decimals.
struct Scale {
    std::array<const char*, 7> names;
    double step;
};
constexpr Scale BYTE_SCALE{{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"}, 1024};
constexpr Scale BIT_SCALE{{"bit", "kbit", "Mbit", "Gbit", "Tbit", "Pbit", "Ebit"}, 1000};

std::string scaled(double value, const Scale& scale, const char* suffix) {
    // Values that round up to the step use the next unit.
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

// The code point at the start of the text, and its length in bytes; 0 if it is not UTF-8.
struct CodePoint {
    std::uint32_t value = 0;
    std::size_t length = 0;
};

CodePoint first_code_point(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    const auto byte = [text](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(text[i]));
    };
    const std::uint32_t first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return {};
    }
    std::uint32_t value = first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) {
            return {};
        }
        value = value << 6U | (byte(i) & 0x3FU);
    }
    constexpr std::array<std::uint32_t, 5> SMALLEST{0, 0, 0x80, 0x800, 0x10000};
    const bool is_surrogate = value >= 0xD800 && value <= 0xDFFF;
    return value < SMALLEST.at(length) || value > 0x10FFFF || is_surrogate ? CodePoint()
                                                                           : CodePoint{value, length};
}

bool cannot_be_seen(std::uint32_t value) {
    struct Range {
        std::uint32_t first;
        std::uint32_t last;
    };
    constexpr std::array<Range, 11> RANGES{{{0, 0x1F},
                                            {0x7F, 0x9F},
                                            {0xAD, 0xAD},
                                            {0x61C, 0x61C},
                                            {0x180E, 0x180E},
                                            {0x200B, 0x200F},
                                            {0x2028, 0x202E},
                                            {0x2060, 0x206F},
                                            {0xFEFF, 0xFEFF},
                                            {0xFFF9, 0xFFFB},
                                            {0xE0000, 0xE0FFF}}};
    return std::any_of(RANGES.begin(), RANGES.end(),
                       [value](const Range& r) { return value >= r.first && value <= r.last; });
}

}  // namespace

std::size_t printable_utf8_length(std::string_view text) {
    const CodePoint first = first_code_point(text);
    return cannot_be_seen(first.value) ? 0 : first.length;
}

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

std::string quote_untrusted(std::string_view text) {
    constexpr std::size_t MAX_COLUMNS = 64;
    return "'" + cut_text(escape_untrusted(text.substr(0, MAX_COLUMNS + 1)), MAX_COLUMNS) + "'";
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

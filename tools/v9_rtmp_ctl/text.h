// Text output: untrusted bytes escaped, columns cut, sizes and rates with units. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Names and addresses are untrusted, so every byte outside 0x20 to 0x7E becomes \xNN. The result has one
// column per byte and cannot control a terminal or end a line.
[[nodiscard]] std::string escape_untrusted(std::string_view text);

// Returns the length in bytes of the printable UTF-8 character at the start of text. Returns 0 for a control
// character, an invisible formatting character such as U+200B, one that changes text direction, a byte that
// is not UTF-8, and an empty text.
[[nodiscard]] std::size_t printable_utf8_length(std::string_view text);

// Returns at most width columns; a cut text ends with '~'.
[[nodiscard]] std::string cut_text(std::string_view text, std::size_t width);

// Returns an untrusted name or word for a line of text: in single quotes, escaped, and cut to 64 columns,
// since it may be megabytes long.
[[nodiscard]] std::string quote_untrusted(std::string_view text);

// "0 B", "1023 B", "1.0 KiB", "12.3 MiB"; "-" if unknown.
[[nodiscard]] std::string format_bytes(std::optional<std::uint64_t> bytes);

// The unit of rates. Totals are always bytes.
enum class RateUnit { BYTES, BITS };

// "12.3 MiB/s", or "103.2 Mbit/s" with steps of 1000, as in encoder settings. "-" for negative and
// unknown rates.
[[nodiscard]] std::string format_rate(std::optional<double> bytes_per_second,
                                      RateUnit unit = RateUnit::BYTES);

// Returns the rate in that unit, for scripts.
[[nodiscard]] double in_unit(double bytes_per_second, RateUnit unit);

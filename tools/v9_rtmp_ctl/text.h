// Text for people: strangers' bytes made harmless, columns cut and filled, sizes and rates with units. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Names and addresses come from strangers: every byte outside 0x20 to 0x7E becomes \xNN. What comes out has
// one column per byte and cannot steer a terminal or end a line.
[[nodiscard]] std::string escape_untrusted(std::string_view text);

// The bytes of the character that text begins with, where it is UTF-8 and can be seen; 0 for a control, for
// what changes the direction of the text around it or has no width, for a byte that is not UTF-8, and for an
// empty text.
[[nodiscard]] std::size_t printable_utf8_length(std::string_view text);

// At most width columns; a text that was cut ends with '~'.
[[nodiscard]] std::string cut_text(std::string_view text, std::size_t width);

// "0 B", "1023 B", "1.0 KiB", "12.3 MiB"; "-" when the value is not known.
[[nodiscard]] std::string format_bytes(std::optional<std::uint64_t> bytes);

// What rates are counted in. Totals are bytes always.
enum class RateUnit { BYTES, BITS };

// "12.3 MiB/s", or "103.2 Mbit/s" in units of 1000, as encoders are set. Negative and unknown rates are "-".
[[nodiscard]] std::string format_rate(std::optional<double> bytes_per_second,
                                      RateUnit unit = RateUnit::BYTES);

// The rate in that unit, for scripts.
[[nodiscard]] double in_unit(double bytes_per_second, RateUnit unit);

#include "tools/v9_rtmp_ctl/json_objects.h"

#include <cmath>
#include <cstddef>

namespace {

// Escapes characters that are valid in JSON but may control a terminal: DEL and U+0080 to U+009F. They occur
// only in strings, where an escape means the same.
std::string escape_controls(const std::string& json) {
    constexpr char DEL = '\x7f';
    constexpr char FIRST_OF_TWO = '\xc2';  // begins U+0080 to U+00BF; the other byte is the code point
    std::string escaped;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const bool two_bytes = json[i] == FIRST_OF_TWO && static_cast<unsigned char>(json[i + 1]) < 0xA0;
        if (!two_bytes && json[i] != DEL) {
            escaped += json[i];
            continue;
        }
        i += two_bytes ? 1 : 0;
        constexpr const char* DIGITS = "0123456789abcdef";
        const auto code = static_cast<unsigned char>(json[i]);
        escaped += {'\\', 'u', '0', '0', DIGITS[code >> 4U], DIGITS[code & 0xFU]};
    }
    return escaped;
}

std::string rate_name(const char* what, RateUnit unit) {
    return std::string(unit == RateUnit::BITS ? "bits_" : "bytes_") + what + "_per_second";
}

Json rate_or_null(const std::optional<double>& rate, RateUnit unit) {
    return rate ? Json(std::llround(in_unit(*rate, unit))) : Json(nullptr);
}

}  // namespace

Json text_or_null(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

std::string dump(const Json& json) {
    return escape_controls(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

Json connection_object(const Connection& connection, RateUnit unit) {
    return {{"id", connection.id},
            {"stream", text_or_null(connection.stream)},
            {"mode", text_or_null(connection.mode)},
            {"width", connection.size ? Json(connection.size->width) : Json(nullptr)},
            {"height", connection.size ? Json(connection.size->height) : Json(nullptr)},
            {"bytes_sent", number_or_null(connection.bytes_sent)},
            {"bytes_received", number_or_null(connection.bytes_received)},
            {rate_name("sent", unit), rate_or_null(connection.sent_rate, unit)},
            {rate_name("received", unit), rate_or_null(connection.received_rate, unit)},
            {"address", text_or_null(connection.address)}};
}

Json stream_object(const StreamSummary& summary, RateUnit unit) {
    return {{"stream", summary.stream},
            {"publisher", number_or_null(summary.publisher_id)},
            {"publisher_address", text_or_null(summary.publisher_address)},
            {"publisher_is_guess", summary.publisher_is_guess},
            {"players", summary.players},
            {"width", summary.size ? Json(summary.size->width) : Json(nullptr)},
            {"height", summary.size ? Json(summary.size->height) : Json(nullptr)},
            {rate_name("in", unit), rate_or_null(summary.in_rate, unit)},
            {rate_name("out", unit), rate_or_null(summary.out_rate, unit)},
            {"rivals", summary.rivals}};
}

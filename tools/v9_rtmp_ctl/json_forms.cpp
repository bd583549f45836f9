#include "tools/v9_rtmp_ctl/json_forms.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

// What a terminal may obey although JSON lets it stand: DEL, and the controls U+0080 to U+009F. They occur in strings
// only, where an escape means the same.
std::string escape_controls(const std::string& json) {
    constexpr char DEL = '\x7f';
    constexpr char FIRST_OF_TWO = '\xc2';  // of U+0080 to U+00BF in UTF-8; the second is the code itself
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

std::string dump(const Json& json) {
    return escape_controls(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

Json text_or_null(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

template <typename Number>
Json number_or_null(const std::optional<Number>& number) {
    return number ? Json(*number) : Json(nullptr);
}

std::string rate_name(const char* what, RateUnit unit) {
    return std::string(unit == RateUnit::BITS ? "bits_" : "bytes_") + what + "_per_second";
}

Json rate_or_null(const std::optional<double>& rate, RateUnit unit) {
    return rate ? Json(std::llround(in_unit(*rate, unit))) : Json(nullptr);
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

Json connection_array(const std::vector<Connection>& connections, RateUnit unit) {
    Json array = Json::array();
    for (const Connection& connection : connections) {
        array.push_back(connection_object(connection, unit));
    }
    return array;
}

Json stream_array(const std::vector<StreamSummary>& streams, RateUnit unit) {
    Json array = Json::array();
    for (const StreamSummary& summary : streams) {
        array.push_back(stream_object(summary, unit));
    }
    return array;
}

}  // namespace

std::string reply_json(const Reply& reply) {
    std::string pairs;
    for (const auto& [name, value] : reply.pairs) {
        pairs += (pairs.empty() ? "" : ", ") + dump(Json::array({name, value}));
    }
    return R"({"status": )" + std::to_string(reply.status) + R"(, "command": )" + dump(reply.command) +
           R"(, "message": )" + dump(reply.message) + R"(, "pairs": [)" + pairs + "]}";
}

std::string list_json(const std::vector<Connection>& connections, RateUnit unit) {
    return dump({{"slots", SLOT_COUNT}, {"connections", connection_array(connections, unit)}});
}

std::string streams_json(const std::vector<StreamSummary>& streams, RateUnit unit) {
    Json document;
    document["streams"] = stream_array(streams, unit);
    return dump(document);
}

std::string watch_json(bool running, const std::vector<StreamSummary>& streams,
                       const std::vector<Connection>& connections, RateUnit unit) {
    return dump({{"running", running},
                 {"slots", SLOT_COUNT},
                 {"streams", stream_array(streams, unit)},
                 {"connections", connection_array(connections, unit)}});
}

std::string hello_json(const Greeting& greeting) {
    return dump({{"greeting", greeting.text},
                 {"round_trip_ms", static_cast<double>(greeting.round_trip_us) / 1000},
                 {"listeners", greeting.listeners ? Json(*greeting.listeners) : Json(nullptr)},
                 {"notes", greeting.notes}});
}

std::string drop_json(const DropResult& result) {
    Json document{{"dropped", result.dropped},
                  {"dry_run", result.dry_run},
                  {"message", result.message ? Json(*result.message) : Json(nullptr)}};
    if (result.ids) {
        document["ids"] = *result.ids;
        document["uncertain"] = result.uncertain_ids;
    }
    return dump(document);
}

std::string watchdog_json(const WatchdogLine& line) {
    return dump({{"unix_seconds", line.unix_seconds},
                 {"action", line.action},
                 {"rule", line.rule},
                 {"reason", line.reason},
                 {"id", line.id},
                 {"stream", text_or_null(line.stream)},
                 {"mode", text_or_null(line.mode)},
                 {"address", text_or_null(line.address)},
                 {"message", line.message ? Json(*line.message) : Json(nullptr)}});
}

std::string event_line_json(const EventLine& line) {
    return dump({{"unix_seconds", line.unix_seconds},
                 {"event", line.event},
                 {"id", line.id},
                 {"stream", text_or_null(line.stream)},
                 {"mode", text_or_null(line.mode)},
                 {"address", text_or_null(line.address)},
                 {"seconds", number_or_null(line.seconds)},
                 {"bytes_sent", number_or_null(line.bytes_sent)},
                 {"bytes_received", number_or_null(line.bytes_received)},
                 {"previous_id", number_or_null(line.previous_id)},
                 {"previous_address", text_or_null(line.previous_address)}});
}

std::string findings_json(const std::vector<FindingLine>& findings, const std::string& worst) {
    Json array = Json::array();
    for (const FindingLine& finding : findings) {
        array.push_back({{"level", finding.level}, {"what", finding.what}, {"text", finding.text}});
    }
    return dump({{"worst", worst}, {"findings", std::move(array)}});
}

std::string version_json(const std::string& version) {
    Json document;
    document["version"] = version;
    return dump(document);
}

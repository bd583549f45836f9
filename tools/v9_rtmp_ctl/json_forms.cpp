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

Json whole_or_null(const std::optional<double>& rate) {
    return rate ? Json(std::llround(*rate)) : Json(nullptr);
}

Json connection_object(const Connection& connection) {
    return {{"id", connection.id},
            {"stream", text_or_null(connection.stream)},
            {"mode", text_or_null(connection.mode)},
            {"width", connection.size ? Json(connection.size->width) : Json(nullptr)},
            {"height", connection.size ? Json(connection.size->height) : Json(nullptr)},
            {"bytes_sent", number_or_null(connection.bytes_sent)},
            {"bytes_received", number_or_null(connection.bytes_received)},
            {"bytes_sent_per_second", whole_or_null(connection.sent_rate)},
            {"bytes_received_per_second", whole_or_null(connection.received_rate)},
            {"address", text_or_null(connection.address)}};
}

Json stream_object(const StreamSummary& summary) {
    return {{"stream", summary.stream},
            {"publisher", number_or_null(summary.publisher_id)},
            {"publisher_address", text_or_null(summary.publisher_address)},
            {"players", summary.players},
            {"width", summary.size ? Json(summary.size->width) : Json(nullptr)},
            {"height", summary.size ? Json(summary.size->height) : Json(nullptr)},
            {"bytes_in_per_second", whole_or_null(summary.in_rate)},
            {"bytes_out_per_second", whole_or_null(summary.out_rate)},
            {"rivals", summary.rivals}};
}

Json connection_array(const std::vector<Connection>& connections) {
    Json array = Json::array();
    for (const Connection& connection : connections) {
        array.push_back(connection_object(connection));
    }
    return array;
}

Json stream_array(const std::vector<StreamSummary>& streams) {
    Json array = Json::array();
    for (const StreamSummary& summary : streams) {
        array.push_back(stream_object(summary));
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

std::string list_json(const std::vector<Connection>& connections) {
    return dump({{"slots", SLOT_COUNT}, {"connections", connection_array(connections)}});
}

std::string streams_json(const std::vector<StreamSummary>& streams) {
    Json document;
    document["streams"] = stream_array(streams);
    return dump(document);
}

std::string watch_json(bool running, const std::vector<StreamSummary>& streams,
                       const std::vector<Connection>& connections) {
    return dump({{"running", running},
                 {"slots", SLOT_COUNT},
                 {"streams", stream_array(streams)},
                 {"connections", connection_array(connections)}});
}

std::string hello_json(const std::string& greeting, std::uint64_t round_trip_us) {
    return dump({{"greeting", greeting}, {"round_trip_ms", static_cast<double>(round_trip_us) / 1000}});
}

std::string drop_json(unsigned dropped, bool dry_run, const std::optional<std::string>& message) {
    return dump(
        {{"dropped", dropped}, {"dry_run", dry_run}, {"message", message ? Json(*message) : Json(nullptr)}});
}

std::string version_json(const std::string& version) {
    Json document;
    document["version"] = version;
    return dump(document);
}

#include "tools/v9_rtmp_ctl/json_forms.h"

#include <utility>

#include "tools/v9_rtmp_ctl/json_objects.h"

namespace {

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

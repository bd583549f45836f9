// Connections and streams as JSON objects, for script output and the status page. Pure.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/text.h"

using Json = nlohmann::ordered_json;

// One line without a newline. Bytes that are not UTF-8 become U+FFFD. Terminal control characters
// are escaped.
[[nodiscard]] std::string dump(const Json& json);

template <typename Number>
[[nodiscard]] Json number_or_null(const std::optional<Number>& number) {
    return number ? Json(*number) : Json(nullptr);
}

[[nodiscard]] Json text_or_null(const std::string& text);

[[nodiscard]] Json connection_object(const Connection& connection, RateUnit unit);
[[nodiscard]] Json stream_object(const StreamSummary& summary, RateUnit unit);

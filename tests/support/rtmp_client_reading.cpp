#include <algorithm>
#include <utility>

#include "tests/support/rtmp_client.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t FULL_HEADER = 11;
// Far above the ids that tests use for their own commands.
constexpr double FIRST_ROUND_TRIP_ID = 1000000;

[[noreturn]] void fail(const std::string& what) {
    throw TestFailure("RTMP client: " + what);
}

std::string describe(const RtmpMessage& message) {
    return "a message of type " + std::to_string(message.type) + " on chunk stream " +
           std::to_string(message.csid) + ", message stream " + std::to_string(message.stream_id) + ", " +
           std::to_string(message.payload.size()) + " bytes: " + to_hex(message.payload.substr(0, 64));
}

}  // namespace

// Reads the header of a message into message. Returns the sizes of header and payload. Empty if the header
// is incomplete.
std::optional<RtmpClient::HeaderSizes> RtmpClient::parse_header(std::string_view data,
                                                                RtmpMessage& message) const {
    if (data.empty()) {
        return std::nullopt;
    }
    const auto first = static_cast<unsigned char>(data[0]);
    if (first >> 6 != 0) {
        fail("a message of the server starts with chunk format " + std::to_string(first >> 6));
    }
    const std::size_t basic_size = first == 0 ? 2 : first == 1 ? 3 : 1;
    std::size_t position = basic_size;
    if (data.size() < basic_size + FULL_HEADER) {
        return std::nullopt;
    }
    message.csid = first;
    if (basic_size > 1) {
        message.csid = static_cast<unsigned char>(data[1]) + 64U;
        message.csid += basic_size == 3 ? static_cast<unsigned char>(data[2]) * 256U : 0;
    }
    if (data.substr(0, basic_size) != basic_header(0, message.csid)) {
        fail("a basic header of the server is not in its shortest form: " +
             to_hex(data.substr(0, basic_size)));
    }
    message.timestamp = get_be24(data, position);
    const std::size_t length = get_be24(data, position + 3);
    message.type = static_cast<std::uint8_t>(data[position + 6]);
    message.stream_id = get_le32(data, position + 7);
    position += FULL_HEADER;
    if (length == 0) {
        fail("the server sent a message without payload");
    }
    if (message.timestamp == EXTENDED_TIMESTAMP) {
        if (data.size() - position < 4) {
            return std::nullopt;
        }
        message.timestamp = get_be32(data, position);
        position += 4;
    }
    return HeaderSizes{position, length};
}

std::optional<RtmpMessage> RtmpClient::parse_message() {
    const std::string_view data = buffer;
    RtmpMessage message;
    const std::optional<HeaderSizes> sizes = parse_header(data, message);
    if (!sizes) {
        return std::nullopt;
    }
    const Bytes continuation = basic_header(3, message.csid);
    std::size_t position = sizes->header;
    while (true) {
        const std::size_t missing = sizes->payload - message.payload.size();
        const std::size_t chunk = std::min<std::size_t>(read_chunk_bytes, missing);
        if (data.size() - position < chunk) {
            return std::nullopt;
        }
        message.payload += data.substr(position, chunk);
        message.chunk_sizes.push_back(chunk);
        position += chunk;
        if (chunk == missing) {
            break;
        }
        if (data.size() - position < continuation.size()) {
            return std::nullopt;
        }
        if (data.substr(position, continuation.size()) != continuation) {
            fail("expected a continuation of chunk stream " + std::to_string(message.csid) + ", got " +
                 to_hex(data.substr(position, continuation.size())));
        }
        position += continuation.size();
    }
    message.raw = data.substr(0, position);
    message.arrival = buffer_filled;
    buffer.erase(0, position);
    if (message.csid == CONTROL_CSID && message.type == MSG_SET_CHUNK_SIZE) {
        read_chunk_bytes = get_be32(message.payload);
    }
    return message;
}

RtmpMessage RtmpClient::read_any_message(Milliseconds wait) {
    if (std::optional<RtmpMessage> message = try_read_message(wait)) {
        return std::move(*message);
    }
    fail(closed_by_server() ? "the server closed the connection instead of sending a message"
                            : "the server sent no message in time");
}

std::optional<RtmpMessage> RtmpClient::try_read_message(Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (true) {
        if (std::optional<RtmpMessage> message = parse_message()) {
            return message;
        }
        if (fill_buffer(deadline) != Fill::SOME) {
            return std::nullopt;
        }
    }
}

RtmpMessage RtmpClient::read_message(Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (true) {
        RtmpMessage message = read_any_message(Milliseconds{poll_timeout_ms(deadline)});
        if (message.type != MSG_ACKNOWLEDGEMENT) {
            return message;
        }
    }
}

RtmpMessage RtmpClient::expect_message(std::uint8_t type, Milliseconds wait) {
    RtmpMessage message = type == MSG_ACKNOWLEDGEMENT ? read_any_message(wait) : read_message(wait);
    if (message.type != type) {
        fail("expected a message of type " + std::to_string(type) + ", got " + describe(message));
    }
    return message;
}

std::uint32_t RtmpClient::expect_acknowledgement(Milliseconds wait) {
    return get_be32(expect_message(MSG_ACKNOWLEDGEMENT, wait).payload);
}

CloseKind RtmpClient::expect_closed(Milliseconds wait, std::vector<RtmpMessage>* rest) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (!closed_by_server()) {
        std::optional<RtmpMessage> message = try_read_message(Milliseconds{poll_timeout_ms(deadline)});
        if (message && rest != nullptr) {
            rest->push_back(std::move(*message));
        }
        if (!message && !closed_by_server()) {
            fail("the server did not close the connection");
        }
    }
    // Messages that arrived together with the end.
    while (std::optional<RtmpMessage> message = parse_message()) {
        if (rest != nullptr) {
            rest->push_back(std::move(*message));
        }
    }
    return close_kind;
}

CloseKind RtmpClient::expect_closed_without_answer(Milliseconds wait) {
    std::vector<RtmpMessage> rest;
    const CloseKind kind = expect_closed(wait, &rest);
    for (const RtmpMessage& message : rest) {
        if (message.type != MSG_ACKNOWLEDGEMENT) {
            fail("the server closed the connection, but first it sent " + describe(message));
        }
    }
    return kind;
}

RtmpMessage RtmpClient::connect_app(std::string_view app, double transaction_id) {
    send_connect(app, transaction_id);
    return expect_message(MSG_COMMAND);
}

std::uint32_t RtmpClient::create_stream(double transaction_id) {
    send_create_stream(transaction_id);
    const RtmpMessage reply = expect_message(MSG_COMMAND);
    const Bytes start = amf_string("_result") + amf_number(transaction_id) + amf_null();
    if (!reply.payload.starts_with(start)) {
        fail("createStream was answered with " + describe(reply));
    }
    media_stream_id = static_cast<std::uint32_t>(amf_decode_number(reply.payload.substr(start.size())));
    return media_stream_id;
}

RtmpMessage RtmpClient::publish(std::string_view name, double transaction_id) {
    send_publish(name, transaction_id);
    return expect_message(MSG_COMMAND);
}

RtmpMessage RtmpClient::play(std::string_view name, double transaction_id) {
    send_play(name, transaction_id);
    return expect_message(MSG_COMMAND);
}

std::vector<RtmpMessage> RtmpClient::round_trip(Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    const double transaction_id = FIRST_ROUND_TRIP_ID + round_trips++;
    const Bytes expected = amf_string("_result") + amf_number(transaction_id) + amf_null();
    send_command(amf_string("releaseStream") + amf_number(transaction_id) + amf_null());
    std::vector<RtmpMessage> before;
    while (true) {
        RtmpMessage message = read_message(Milliseconds{poll_timeout_ms(deadline)});
        if (message.type == MSG_COMMAND && message.payload == expected) {
            return before;
        }
        before.push_back(std::move(message));
    }
}

RtmpClient handshaken_client(const ClientOptions& options) {
    RtmpClient client(options);
    (void)client.handshake();
    return client;
}

RtmpClient connected_client(std::string_view app, const ClientOptions& options) {
    RtmpClient client = handshaken_client(options);
    (void)client.connect_app(app);
    return client;
}

RtmpClient publishing_client(std::string_view name, const ClientOptions& options) {
    RtmpClient client = connected_client("ombrex-live", options);
    (void)client.publish(name);
    return client;
}

RtmpClient playing_client(std::string_view name, const ClientOptions& options) {
    RtmpClient client = connected_client("ombrex-output", options);
    (void)client.play(name);
    return client;
}

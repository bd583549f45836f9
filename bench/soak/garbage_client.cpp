#include "bench/soak/garbage_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <utility>

#include "tests/support/tool_run.h"

namespace {

constexpr std::uint32_t MESSAGES = 8;
constexpr std::uint32_t MESSAGE_BYTES = 2000;
constexpr std::uint32_t DAMAGED_BYTES = 4;
constexpr Milliseconds PATIENCE{200};
constexpr std::uint32_t CHUNK_STREAMS = 64;
constexpr std::uint32_t FORMATS = 4;
const std::string MEDIA_STREAM = "garbage_media";

// Reads anything until the server closes or the time limit expires.
void read_on(const RtmpClient& client) {
    const TimePoint deadline = SteadyClock::now() + PATIENCE;
    std::array<char, 4096> ignored{};
    while (SteadyClock::now() < deadline) {
        pollfd entry{client.descriptor(), POLLIN, 0};
        if (poll(&entry, 1, poll_timeout_ms(deadline)) > 0 &&
            recv(entry.fd, ignored.data(), ignored.size(), MSG_DONTWAIT) <= 0) {
            return;
        }
    }
}

}  // namespace

void GarbageClients::step() {
    using Way = void (GarbageClients::*)();
    static constexpr std::array<Way, 6> WAYS = {
        &GarbageClients::half_greeted,     &GarbageClients::random_chunks,
        &GarbageClients::random_messages,  &GarbageClients::damaged_commands,
        &GarbageClients::damaged_metadata, &GarbageClients::garbage_media};
    (this->*WAYS[steps++ % WAYS.size()])();
    journal.count("garbage clients");
}

Bytes GarbageClients::random_bytes(std::uint32_t at_most) {
    return pattern_bytes(below(at_most + 1), below(1U << 31));
}

std::uint8_t GarbageClients::any_type() {
    static constexpr std::array<std::uint8_t, 12> TYPES = {1, 2, 3, 4, 5, 6, 8, 9, 15, 17, 18, 20};
    return TYPES[below(TYPES.size())];
}

// Uses its own names, so that garbage that is accepted affects no other client.
Bytes GarbageClients::command() {
    static const std::array<std::string, 8> NAMES = {
        "connect", "createStream", "publish", "play", "releaseStream", "FCPublish", "_error", "deleteStream"};
    const std::string stream = "garbage_" + std::to_string(below(20));
    return amf_string(NAMES[below(NAMES.size())]) + amf_number(below(5)) +
           (below(2) == 0 ? amf_null() : amf_object({{"app", amf_string("ombrex-live")}})) +
           amf_string(stream) + amf_string("live");
}

Bytes GarbageClients::damaged(Bytes bytes) {
    for (std::uint32_t i = below(DAMAGED_BYTES); i > 0 && !bytes.empty(); --i) {
        bytes[below(static_cast<std::uint32_t>(bytes.size()))] = static_cast<char>(below(256));
    }
    if (below(4) == 0) {
        bytes.resize(below(static_cast<std::uint32_t>(bytes.size()) + 1));
    }
    return bytes;
}

void GarbageClients::half_greeted() {
    RtmpClient client;
    Bytes greeting = random_bytes(4000);
    if (!greeting.empty() && below(2) == 0) {
        greeting[0] = 3;
    }
    (void)client.try_send_bytes(greeting);
    read_on(client);
}

void GarbageClients::random_chunks() {
    RtmpClient client = handshaken_client();
    (void)client.try_send_bytes(random_bytes(20000));
    read_on(client);
}

void GarbageClients::random_messages() {
    RtmpClient client = handshaken_client();
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        const OutMessage message{.type = any_type(),
                                 .payload = random_bytes(MESSAGE_BYTES),
                                 .csid = 2 + below(CHUNK_STREAMS),
                                 .timestamp = below(1U << 31),
                                 .stream_id = below(3),
                                 .fmt = static_cast<int>(i == 0 ? 0 : below(FORMATS))};
        if (!client.try_send_bytes(chunked(message))) {
            break;
        }
    }
    read_on(client);
}

void GarbageClients::damaged_commands() {
    RtmpClient client = handshaken_client();
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        if (!client.try_send_bytes(chunked({.payload = damaged(command())}))) {
            break;
        }
    }
    read_on(client);
}

void GarbageClients::damaged_metadata() {
    RtmpClient client = publishing_client("garbage_metadata");
    const Bytes metadata = amf_string("@setDataFrame") + amf_string("onMetaData") +
                           amf_ecma_array(3, {{"width", amf_number(below(4000))},
                                              {"videocodecid", amf_number(7)},
                                              {"encoder", amf_string("x")}});
    (void)client.try_send_bytes(chunked({.type = MSG_DATA, .payload = metadata}));
    (void)client.try_send_bytes(chunked({.type = MSG_DATA, .payload = damaged(metadata)}));
    read_on(client);
}

// A message with a future timestamp is held until that time, together with its publisher, even if the client
// has gone. Only the control socket ends that.
void GarbageClients::garbage_media() {
    RtmpClient client = publishing_client(MEDIA_STREAM);
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        const OutMessage message{.type = below(2) == 0 ? MSG_AUDIO : MSG_VIDEO,
                                 .payload = random_bytes(MESSAGE_BYTES),
                                 .csid = 4,
                                 .timestamp = below(1U << 31)};
        if (!client.try_send_bytes(chunked(message))) {
            break;
        }
    }
    read_on(client);
    client.close();
    ask_raw("drop connection by stream name", {MEDIA_STREAM});
}

// Sends messages through the real chunk writer into a socket that takes a few bytes at a time. An independent
// reader must find the same messages in what was sent, and so must the server's reader.
//
//   input: options | for each message: what, layout | chunk stream | timestamp | length | type
//          | message stream
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/check.h"
#include "core/connection.h"
#include "core/switches.h"
#include "fuzz/support/chunk_parser.h"
#include "fuzz/support/input_bytes.h"
#include "rtmp/outgoing_packet.h"
#include "rtmp/packet_queues.h"
#include "rtmp/shared_payload.h"

namespace {

constexpr int WRITER_FD = 1000000;
constexpr int READER_FD = 1000001;
constexpr std::size_t MAX_MESSAGES = 16;
constexpr std::size_t ORDINARY_BYTES = 300;
constexpr std::size_t LONG_BYTES = 2500;
constexpr std::uint32_t LARGEST_CHUNK_SIZE = 4194304;
constexpr std::size_t ALL = static_cast<std::size_t>(-1);
constexpr std::array<std::size_t, 8> PIECE_BYTES{ALL, ALL, ALL, ALL, 3, 130, 1025, 4000};
constexpr unsigned OPTION_FAIL = 8;

enum What : std::uint8_t { ORDINARY, LONG, CHUNK_SIZE, EMPTY, WHATS };

constexpr std::uint32_t OWN_PAYLOAD = 0;
// The chunk sizes for which shared payloads are laid out.
constexpr std::array<std::uint32_t, 12> LAYOUTS{OWN_PAYLOAD, 1,   2,   127, 128,  129,
                                                255,         256, 299, 300, 4096, LARGEST_CHUNK_SIZE};

std::size_t piece_bytes = ALL;
std::size_t room = ALL;  // the client disconnects after this many bytes
std::string sent;
std::string_view unread;

// Returns bytes that differ from their neighbours and from message to message.
std::string payload_of(std::size_t length, std::size_t message) {
    static const std::string pattern = [] {
        std::string bytes(LONG_BYTES + MAX_MESSAGES, '\0');
        std::uint32_t state = 1;
        for (char& byte : bytes) {
            state = state * 1664525U + 1013904223U;
            byte = static_cast<char>(state >> 24);
        }
        return bytes;
    }();
    return pattern.substr(message, length);
}

std::string chunk_size_payload(std::uint32_t number) {
    const std::uint32_t chunk_size = number % LARGEST_CHUNK_SIZE + 1;
    std::string payload;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        payload += static_cast<char>(chunk_size >> shift & 0xFF);
    }
    return payload;
}

struct QueuedMessage {
    ParsedMessage message;
    std::uint32_t layout = OWN_PAYLOAD;
};

QueuedMessage next_message(InputBytes& input, std::size_t number) {
    const std::uint8_t choice = input.u8();
    const std::uint8_t what = choice % WHATS;
    QueuedMessage queued;
    ParsedMessage& message = queued.message;
    // All ids from 2 to 65599, except a few in the middle.
    const std::uint32_t stream = input.u16();
    message.chunk_stream_id = stream + (stream < 0xF000 ? 2 : 64);
    message.timestamp = input.u32();
    const std::uint16_t length = input.u16();
    message.type = input.u8();
    message.message_stream_id = input.u32();
    if (what == CHUNK_SIZE) {
        // Only the echo of a client's chunk size sends this, with this header.
        message.chunk_stream_id = 2;
        message.type = 1;
        message.payload = chunk_size_payload(message.message_stream_id);
        message.message_stream_id = 0;
    } else {
        if (message.chunk_stream_id == 2) {
            message.type = 3;
        }
        const std::size_t bytes = what == EMPTY ? 0 : length % (what == LONG ? LONG_BYTES : ORDINARY_BYTES);
        message.payload = payload_of(bytes, number);
        queued.layout = LAYOUTS[choice / WHATS % LAYOUTS.size()];
    }
    return queued;
}

RTMP_Packet packet_of(const ParsedMessage& message) {
    RTMP_Packet pkt;
    pkt.chunk.stream_id = message.chunk_stream_id;
    pkt.chunk.timestamp = message.timestamp;
    pkt.chunk.message_type_id = message.type;
    pkt.chunk.message_stream_id = message.message_stream_id;
    if (!message.payload.empty()) {
        CHECK(pkt.chunk.message.allocate(static_cast<std::uint32_t>(message.payload.size())));
        std::memcpy(pkt.chunk.message.data, message.payload.data(), message.payload.size());
    }
    return pkt;
}

OutgoingPacket outgoing_packet_of(const QueuedMessage& queued) {
    RTMP_Packet pkt = packet_of(queued.message);
    if (queued.layout == OWN_PAYLOAD) {
        return pkt;
    }
    OutgoingPacket outgoing;
    outgoing.copy_header_from(pkt);
    outgoing.shared = SharedPayload::lay_out(pkt.chunk, queued.layout);
    return outgoing;
}

// One thread plays all roles, so no lock is needed. Runs the writer thread's loop until everything is sent or
// the client is gone.
void write_all(RTMPConnection& conn) {
    while (!conn.connection_out.empty()) {
        if (!conn.rtmp_send_packet()) {
            CHECK(sent.size() == room);
            return;
        }
    }
}

void check_by_parser(const std::vector<QueuedMessage>& queued_messages) {
    ChunkParser parser(sent, ChunkParser::NO_LIMIT);
    ParsedMessage parsed;
    for (const QueuedMessage& queued : queued_messages) {
        const ParsedMessage& message = queued.message;
        if (message.payload.empty()) {
            continue;  // Messages without payload are not sent.
        }
        const Parsed result = parser.next(parsed);
        if (result == Parsed::END && room != ALL) {
            return;
        }
        CHECK(result == Parsed::MESSAGE);
        CHECK(parsed == message);
    }
    CHECK(parser.next(parsed) == Parsed::END);
}

// The server's reader agrees with the independent one, up to the number of chunk streams that it accepts.
void check_by_reader() {
    RTMPConnection conn(READER_FD, 1, {});
    unread = sent;
    ChunkParser parser(sent, ChunkParser::SERVER_LIMIT);
    ParsedMessage parsed;
    while (parser.next(parsed) == Parsed::MESSAGE) {
        CHECK(conn.rtmp_proc_packet());
        CHECK(conn.connection_in.size() == 1);
        const RTMP_Packet::chunk_t& chunk = conn.connection_in.front().chunk;
        CHECK(chunk.stream_id == parsed.chunk_stream_id && chunk.timestamp == parsed.timestamp &&
              chunk.message_type_id == parsed.type && chunk.message_stream_id == parsed.message_stream_id);
        CHECK(parsed.payload ==
              std::string_view(reinterpret_cast<const char*>(chunk.message.data), chunk.message.data_length));
        conn.connection_in.clear();
    }
    CHECK(!conn.rtmp_proc_packet());
}

}  // namespace

extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    CHECK(fd == WRITER_FD && (flags & MSG_NOSIGNAL) != 0);
    const std::size_t before = sent.size();
    std::size_t takes = std::min(piece_bytes, room - before);
    for (std::size_t i = 0; i < message->msg_iovlen && takes != 0; ++i) {
        const iovec& piece = message->msg_iov[i];
        const std::size_t bytes = std::min(piece.iov_len, takes);
        sent.append(static_cast<const char*>(piece.iov_base), bytes);
        takes -= bytes;
    }
    if (sent.size() == before) {
        errno = EPIPE;
        return -1;
    }
    return static_cast<ssize_t>(sent.size() - before);
}

extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t c, int /*flags*/) {
    CHECK(fd == READER_FD);
    const std::size_t bytes = std::min(c, unread.size());
    std::memcpy(buffer, unread.data(), bytes);
    unread.remove_prefix(bytes);
    return static_cast<ssize_t>(bytes);
}

extern "C" int __wrap_usleep(useconds_t /*us*/) {
    CHECK(false);  // Nothing has a reason to wait.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    InputBytes input(data, size);
    const unsigned options = input.u8();
    piece_bytes = PIECE_BYTES[options % PIECE_BYTES.size()];
    room = (options & OPTION_FAIL) != 0 ? input.u16() : ALL;
    sent.clear();

    std::vector<QueuedMessage> messages;
    while (!input.empty() && messages.size() < MAX_MESSAGES) {
        messages.push_back(next_message(input, messages.size()));
    }
    RTMPConnection conn(WRITER_FD, 0, {});
    for (const QueuedMessage& queued : messages) {
        CHECK(queue_outgoing(conn, outgoing_packet_of(queued)));
    }
    write_all(conn);
    CHECK(conn.conn_g_client.bytes_total == sent.size());
    check_by_parser(messages);
    check_by_reader();
    return 0;
}

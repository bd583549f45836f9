// Passes what a client sends after a valid handshake through the reader thread's own loop, on one end of a
// socket pair. An independent reader determines which messages these bytes contain and where they are
// refused. The target computes from this which acknowledgements and echoes must answer them. The main thread
// takes messages only when the reader waits for it.
//
//   input: options | the client's bytes
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/check.h"
#include "core/connection.h"
#include "core/switches.h"
#include "fuzz/support/chunk_parser.h"
#include "fuzz/support/input_bytes.h"
#include "fuzz/support/quiet_diag.h"
#include "rtmp/session_threads.h"

extern "C" ssize_t __real_recv(int fd, void* buffer, std::size_t c, int flags);

namespace {

constexpr std::size_t BLOCK_BYTES = 1536;
constexpr std::size_t HANDSHAKE_BYTES = 1 + 2 * BLOCK_BYTES;
constexpr char SERVER_RANDOM = 0x5A;
constexpr std::size_t SENT_AT_ONCE_BYTES = 65536;  // fits the socket together with the handshake
constexpr std::size_t MAX_WAITING_MESSAGES = 8;
constexpr std::array<std::size_t, 4> PIECE_BYTES{SENT_AT_ONCE_BYTES, 1, 3, 130};

constexpr unsigned OPTION_NO_DEFAULT_ACKNOWLEDGEMENT = 4;
constexpr unsigned OPTION_DUMP = 8;

std::size_t piece_bytes = 0;
RTMPConnection* connection = nullptr;
std::vector<ParsedMessage> taken;     // what the main thread has taken
std::vector<ParsedMessage> answered;  // what the writer thread has taken

ParsedMessage plain(const RTMP_Packet& pkt) {
    const RTMP_Packet::chunk_t& chunk = pkt.chunk;
    return {chunk.stream_id, chunk.timestamp, chunk.message_stream_id, chunk.message_type_id,
            std::string(reinterpret_cast<const char*>(chunk.message.data), chunk.message.data_length)};
}

// Does what the main thread and the writer thread do: takes everything. The lock must be free.
void take_messages(std::size_t at_least) {
    const ConnectionLock lock(*connection);
    CHECK(connection->connection_in.size() >= at_least);
    CHECK(connection->connection_in.size() <= MAX_WAITING_MESSAGES);
    for (const RTMP_Packet& pkt : connection->connection_in) {
        CHECK(pkt.chunk.message_length == pkt.chunk.message.data_length);
        CHECK((pkt.chunk.message.data == nullptr) == (pkt.chunk.message.data_length == 0));
        taken.push_back(plain(pkt));
    }
    connection->connection_in.clear();
    for (const RTMP_Packet& pkt : connection->connection_out) {
        answered.push_back(plain(pkt));
    }
    connection->connection_out.clear();
}

// Computes independently which acknowledgements are due.
struct Acknowledgements {
    bool at_once;
    std::uint32_t window;
    std::uint32_t unacknowledged = HANDSHAKE_BYTES;

    void window_announced(const ParsedMessage& message) {
        if (message.message_stream_id == 0 && message.chunk_stream_id == 2 && message.type == 5 &&
            message.payload.size() >= 4) {
            window = 0;
            for (std::size_t i = 0; i < 4; ++i) {
                window = window << 8 | static_cast<unsigned char>(message.payload[i]);
            }
        }
    }

    bool due(std::size_t new_bytes) {
        unacknowledged += static_cast<std::uint32_t>(new_bytes);
        const bool full = window != 0 && unacknowledged >= window;
        const bool result = full || at_once;
        if (full) {
            unacknowledged = std::min(window, unacknowledged - window);
        }
        at_once = false;
        return result;
    }
};

ParsedMessage acknowledgement_of(std::size_t total) {
    std::string payload;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        payload += static_cast<char>(total >> shift & 0xFF);
    }
    return {2, 0, 0, 3, payload};
}

bool is_chunk_size(const ParsedMessage& message) {
    return message.message_stream_id == 0 && message.chunk_stream_id == 2 && message.type == 1;
}

// Returns how many of the client's bytes must have been read.
std::size_t check_messages(std::string_view bytes) {
    ChunkParser parser(bytes, ChunkParser::SERVER_LIMIT);
    Acknowledgements acknowledgements{!opt_no_def_ack, opt_no_def_ack ? 0U : 1U};
    std::size_t messages = 0;
    std::size_t answers = 0;
    std::size_t left = bytes.size();
    ParsedMessage message;
    while (parser.next(message) == Parsed::MESSAGE) {
        CHECK(messages < taken.size() && taken[messages] == message);
        ++messages;
        if (is_chunk_size(message)) {
            CHECK(answers < answered.size() && answered[answers] == message);
            ++answers;
        }
        acknowledgements.window_announced(message);
        if (acknowledgements.due(left - parser.bytes_left())) {
            const std::size_t total = HANDSHAKE_BYTES + bytes.size() - parser.bytes_left();
            CHECK(answers < answered.size() && answered[answers] == acknowledgement_of(total));
            ++answers;
        }
        left = parser.bytes_left();
    }
    CHECK(messages == taken.size());
    // The chunk size of a refused message is not echoed.
    CHECK(answers == answered.size());
    return bytes.size() - parser.bytes_left();
}

const std::string& handshake_bytes() {
    // C1 may hold any bytes; C2 echoes an S1 made of this target's own random numbers.
    static const std::string bytes = "\x03" + std::string(BLOCK_BYTES, 'c') + std::string(8, '\0') +
                                     std::string(BLOCK_BYTES - 8, SERVER_RANDOM);
    return bytes;
}

void send_all(int fd, std::string_view bytes) {
    CHECK(bytes.empty() || send(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
}

}  // namespace

extern "C" int rand() noexcept {
    return SERVER_RANDOM;
}

extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t c, int flags) {
    // The handshake is not tested here.
    const bool shaken = connection->conn_g_server.bytes_total >= HANDSHAKE_BYTES;
    return __real_recv(fd, buffer, shaken ? std::min(c, piece_bytes) : c, flags);
}

// The reader waits because the main thread has been too slow.
extern "C" int __wrap_usleep(useconds_t /*us*/) {
    take_messages(MAX_WAITING_MESSAGES);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    InputBytes input(data, size);
    const unsigned options = input.u8();
    piece_bytes = PIECE_BYTES[options % PIECE_BYTES.size()];
    opt_no_def_ack = (options & OPTION_NO_DEFAULT_ACKNOWLEDGEMENT) != 0;
    opt_dbg_pkt = (options & OPTION_DUMP) != 0;
    const std::string_view bytes = input.take(SENT_AT_ONCE_BYTES);
    taken.clear();
    answered.clear();

    int fds[2] = {-1, -1};
    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    send_all(fds[1], handshake_bytes());
    send_all(fds[1], bytes);
    CHECK(shutdown(fds[1], SHUT_WR) == 0);
    {
        RTMPConnection conn(fds[0], 0, {});
        connection = &conn;
        CHECK(reader_thread(&conn) == nullptr);
        CHECK(conn.thread_died);
        take_messages(0);
        CHECK(conn.conn_g_server.bytes_total == HANDSHAKE_BYTES + check_messages(bytes));
        CHECK(conn.conn_g_client.bytes_total == HANDSHAKE_BYTES);
        CHECK(conn.chunk_streams.size() <= ChunkParser::SERVER_LIMIT);
        connection = nullptr;
    }
    close(fds[0]);
    close(fds[1]);
    return 0;
}

// Cuts messages into chunks and sends them. Every message begins with a full format 0 header, its other
// chunks with a format 3 basic header alone; chunks of different messages never mix.
//
// The pieces leave the process gathered: one system call for some hundred pieces that point at two small
// headers and straight into the payload. A call per piece costs more than ten times as much at the default
// chunk size.
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/bytes.h"
#include "base/check.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/switches.h"
#include "rtmp/chunk_format.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_dump.h"
#include "rtmp/packet_queues.h"

namespace {

constexpr useconds_t IDLE_SLEEP_US = 50000;
constexpr std::size_t MAX_PIECES = 1024;  // what one sendmsg takes

// Pieces that wait to be sent in one call. Points at bytes that must stay until flush() returns.
class GatheredPieces {
  public:
    explicit GatheredPieces(RTMPConnection& connection) : conn(connection) {}

    // False when an earlier piece had to be sent to make room, and was not sent whole.
    bool add(unsigned char* s, std::size_t c) {
        if (count == MAX_PIECES && !flush(MSG_MORE)) {
            return false;
        }
        pieces[count].iov_base = s;
        pieces[count].iov_len = c;
        ++count;
        bytes += c;
        return true;
    }

    // Sends all pieces, as often as the kernel takes only some; false when it takes none. Counts what was
    // sent.
    bool flush(int flags) {
        msghdr header{};
        header.msg_iov = pieces.data();
        header.msg_iovlen = count;
        std::size_t c = bytes;
        while (c != 0) {
            const ssize_t ret = sendmsg(conn.fd, &header, MSG_NOSIGNAL | flags);
            if (ret <= 0) {
                return false;
            }
            CHECK((size_t)ret <= c);
            const auto sent = static_cast<std::size_t>(ret);
            conn.conn_g_client.bytes_total.fetch_add(sent, std::memory_order_relaxed);
            conn.conn_g_client.bytes_unacked += static_cast<std::uint32_t>(sent);
            c -= sent;
            drop_sent(header, sent);
        }
        count = 0;
        bytes = 0;
        return true;
    }

  private:
    static void drop_sent(msghdr& header, std::size_t sent) {
        while (header.msg_iovlen != 0 && sent >= header.msg_iov->iov_len) {
            sent -= header.msg_iov->iov_len;
            ++header.msg_iov;
            --header.msg_iovlen;
        }
        if (sent != 0) {
            header.msg_iov->iov_base = static_cast<unsigned char*>(header.msg_iov->iov_base) + sent;
            header.msg_iov->iov_len -= sent;
        }
    }

    RTMPConnection& conn;
    std::array<iovec, MAX_PIECES> pieces;
    std::size_t count = 0;
    std::size_t bytes = 0;
};

// Adds the next chunk of the payload, of which left bytes are to go. Returns how many it is; 0 when an earlier
// piece was not sent whole.
std::size_t add_chunk(RTMPConnection& conn, GatheredPieces& pieces, const RTMP_Packet::chunk_t& chunk,
                      std::size_t left) {
    unsigned char* const s = chunk.message.data + (chunk.message_length - left);
    const unsigned char* const sf = chunk.message.data + chunk.message.data_length;
    const std::size_t chunk_size = conn.conn_g_server.chunk_size.load(std::memory_order_relaxed);
    const std::size_t todo = std::min(chunk_size, left);
    // clang-format off
    CHECK((s+todo) <= sf);
    // clang-format on
    CHECK(todo != size_t(0));
    return pieces.add(s, todo) ? todo : 0;
}

bool send_chunks(RTMPConnection& conn, const RTMP_Packet::chunk_t& chunk, int last_flags) {
    std::array<unsigned char, MAX_BASIC_HEADER_BYTES + MAX_MESSAGE_HEADER_BYTES> header;
    std::size_t header_bytes = write_basic_header(header.data(), FULL_HEADER_FMT, chunk.stream_id);
    header_bytes += write_message_header(header.data() + header_bytes, chunk);
    std::array<unsigned char, MAX_BASIC_HEADER_BYTES> continuation;
    const std::size_t continuation_bytes =
        write_basic_header(continuation.data(), CONTINUATION_FMT, chunk.stream_id);

    GatheredPieces pieces(conn);
    if (!pieces.add(header.data(), header_bytes)) {
        return false;
    }
    std::size_t left = chunk.message_length;
    for (;;) {
        const std::size_t added = add_chunk(conn, pieces, chunk, left);
        if (added == 0) {
            return false;
        }
        left -= added;
        if (left == 0) {
            return pieces.flush(last_flags);
        }
        if (!pieces.add(continuation.data(), continuation_bytes)) {
            return false;
        }
    }
}

// The echo of a client's set chunk size is the only message of its kind that is ever queued.
void adopt_chunk_size(RTMPConnection& conn, const RTMP_Packet::chunk_t& sent) {
    if (sent.stream_id == CONTROL_CHUNK_STREAM_ID && sent.message_type_id == MESSAGE_SET_CHUNK_SIZE) {
        CHECK(sent.message.data_length >= 4);
        conn.conn_g_server.chunk_size.store(read_be32(sent.message.data), std::memory_order_relaxed);
    }
}

}  // namespace

bool RTMPConnection::rtmp_send_packet() {
    const Outgoing outgoing = take_outgoing(*this);
    if (outgoing == Outgoing::NONE) {
        usleep(IDLE_SLEEP_US);
        return true;
    }
    RTMP_Packet::chunk_t& chunk = out_pkt.chunk;
    if (opt_dbg_pkt && !is_audio_or_video(chunk.message_type_id)) {
        diag("Sending:\n");
        dump_packet(out_pkt);
    }
    chunk.message_length = chunk.message.data_length;
    if (chunk.message.data_length == 0) {
        return true;
    }
    // While more waits, the kernel may fill its segments: one wake-up of this thread pushes once.
    if (fd < 0 || !send_chunks(*this, chunk, outgoing == Outgoing::MORE_BEHIND ? MSG_MORE : 0)) {
        return false;
    }
    adopt_chunk_size(*this, chunk);
    chunk.message.release();
    return true;
}

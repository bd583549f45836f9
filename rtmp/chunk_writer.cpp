// Splits messages into chunks and sends them. The first chunk of a message has a full format 0 header, the
// others only a format 3 basic header. Chunks of different messages are never interleaved.
//
// Waiting messages are sent together: one system call takes up to MAX_PIECES pieces, which point to small
// headers and directly into the payloads. A relayed payload that is laid out for the current chunk size is
// one piece; other payloads are split here.
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/bytes.h"
#include "base/check.h"
#include "core/connection.h"
#include "rtmp/packet_dump.h"
#include "rtmp/packet_queues.h"
#include "rtmp/shared_payload.h"

namespace {

constexpr useconds_t IDLE_SLEEP_US = 50000;
// The most pieces in one sendmsg. They occupy up to 4 KiB on the stack of every writer thread.
constexpr std::size_t MAX_PIECES = 256;

// Collects pieces that are sent in one call. The bytes they point to must stay valid until flush() returns.
class GatheredPieces {
  public:
    explicit GatheredPieces(RTMPConnection& connection) : conn(connection) {}

    // Adds a piece. Returns false if earlier pieces had to be sent first and that failed.
    bool add(const unsigned char* s, std::size_t c) ON_WRITER_THREAD {
        if (count == MAX_PIECES && !flush(MSG_MORE)) {
            return false;
        }
        pieces[count].iov_base = const_cast<unsigned char*>(s);  // sendmsg only reads.
        pieces[count].iov_len = c;
        ++count;
        bytes += c;
        return true;
    }

    // Sends all pieces, in several calls if the kernel accepts only some. Counts the bytes sent. Returns
    // false if a call fails.
    bool flush(int flags) ON_WRITER_THREAD {
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

// The headers of one message's chunks. They must stay valid until its pieces have been sent.
struct ChunkHeaders {
    std::array<unsigned char, MAX_BASIC_HEADER_BYTES + MAX_MESSAGE_HEADER_BYTES> first;
    std::array<unsigned char, MAX_BASIC_HEADER_BYTES> continuation;
};

// Adds payload bytes from a block that is laid out for another chunk size.
bool add_shared_bytes(GatheredPieces& pieces, const SharedPayload& shared, std::size_t offset,
                      std::size_t todo) ON_WRITER_THREAD {
    while (todo != 0) {
        const SharedPayload::Bytes run = shared.plain_run(static_cast<std::uint32_t>(offset));
        const std::size_t c = std::min(run.length, todo);
        if (!pieces.add(run.data, c)) {
            return false;
        }
        offset += c;
        todo -= c;
    }
    return true;
}

// Adds the next chunk of the payload, of which `left` bytes remain. Returns the bytes added, or 0 if sending
// earlier pieces failed.
std::size_t add_chunk(GatheredPieces& pieces, const OutgoingPacket& pkt, std::size_t left,
                      std::size_t chunk_size) ON_WRITER_THREAD {
    const std::size_t todo = std::min(chunk_size, left);
    CHECK(todo != size_t(0));
    const std::size_t offset = pkt.chunk.message_length - left;
    if (pkt.shared.payload_bytes() != 0) {
        return add_shared_bytes(pieces, pkt.shared, offset, todo) ? todo : 0;
    }
    const unsigned char* const s = pkt.chunk.message.data + offset;
    const unsigned char* const sf = pkt.chunk.message.data + pkt.chunk.message.data_length;
    // clang-format off
    CHECK((s+todo) <= sf);
    // clang-format on
    return pieces.add(s, todo) ? todo : 0;
}

// Adds the payload, with a continuation header before each chunk except the first.
bool add_payload(GatheredPieces& pieces, const OutgoingPacket& pkt, ChunkHeaders& headers,
                 std::uint32_t chunk_size) ON_WRITER_THREAD {
    if (pkt.shared.payload_bytes() != 0 && pkt.shared.is_laid_out_for(chunk_size)) {
        const SharedPayload::Bytes laid_out = pkt.shared.laid_out();
        return pieces.add(laid_out.data, laid_out.length);
    }
    const std::size_t continuation_bytes =
        write_basic_header(headers.continuation.data(), CONTINUATION_FMT, pkt.chunk.stream_id);
    std::size_t left = pkt.chunk.message_length;
    for (;;) {
        const std::size_t added = add_chunk(pieces, pkt, left, chunk_size);
        if (added == 0) {
            return false;
        }
        left -= added;
        if (left == 0) {
            return true;
        }
        if (!pieces.add(headers.continuation.data(), continuation_bytes)) {
            return false;
        }
    }
}

bool add_message(GatheredPieces& pieces, const OutgoingPacket& pkt, ChunkHeaders& headers,
                 std::uint32_t chunk_size) ON_WRITER_THREAD {
    std::size_t header_bytes = write_basic_header(headers.first.data(), FULL_HEADER_FMT, pkt.chunk.stream_id);
    header_bytes += write_message_header(headers.first.data() + header_bytes, pkt.chunk);
    return pieces.add(headers.first.data(), header_bytes) && add_payload(pieces, pkt, headers, chunk_size);
}

// Sends the whole batch in as few calls as possible. If the thread is cancelled in one of them, the messages
// are still owned by the connection.
bool send_batch(RTMPConnection& conn) ON_WRITER_THREAD {
    const std::uint32_t chunk_size = conn.conn_g_server.chunk_size.load(std::memory_order_relaxed);
    std::array<ChunkHeaders, MAX_BATCH_MESSAGES> headers;
    GatheredPieces pieces(conn);
    std::size_t idx = 0;
    for (OutgoingPacket& pkt : conn.out_batch) {
        pkt.chunk.message_length = pkt.payload_bytes();
        if (pkt.chunk.message_length == 0) {
            continue;  // Messages without payload are never sent.
        }
        if (conn.fd < 0 || !add_message(pieces, pkt, headers[idx], chunk_size)) {
            return false;
        }
        ++idx;
    }
    return pieces.flush(0);
}

// Adopts an echoed chunk size for the messages after the echo, which is the last of its batch. An echo whose
// payload could not be allocated was not sent; the old size then stays.
void adopt_chunk_size(RTMPConnection& conn, const RTMP_Packet::chunk_t& sent) ON_WRITER_THREAD {
    if (sent.message.data_length != 0) {
        CHECK(sent.message.data_length >= 4);
        conn.conn_g_server.chunk_size.store(read_be32(sent.message.data), std::memory_order_relaxed);
    }
}

}  // namespace

bool RTMPConnection::rtmp_send_packet() {
    if (!take_outgoing(*this)) {
        usleep(IDLE_SLEEP_US);
        return true;
    }
    dump_packet_to_send(out_batch.front());  // A batch is a single message while packets are dumped.
    if (!send_batch(*this)) {
        return false;
    }
    if (is_chunk_size_echo(out_batch.back())) {
        adopt_chunk_size(*this, out_batch.back().chunk);
    }
    out_batch.clear();
    return true;
}

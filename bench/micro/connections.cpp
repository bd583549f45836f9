#include "bench/micro/connections.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/connection_table.h"
#include "relay/av_relay.h"
#include "relay/stream_registry.h"
#include "tests/support/fake_clock.h"

namespace {

constexpr std::uint32_t VIDEO_CHUNK_STREAM = 6;
constexpr int SOCKET_BUFFER_BYTES = 1 << 20;
constexpr std::uint64_t STREAM_LIFETIME_US = 10000000;

const std::string* source = nullptr;
std::size_t source_position = 0;

[[noreturn]] void give_up(const char* what) {
    std::printf("%s\n", what);
    std::exit(1);
}

}  // namespace

extern "C" ssize_t __real_recv(int fd, void* buffer, std::size_t c, int flags);

extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t c, int flags) {
    if (source == nullptr) {
        return __real_recv(fd, buffer, c, flags);
    }
    if (source_position == source->size()) {
        source_position = 0;
    }
    const std::size_t n = std::min(c, source->size() - source_position);
    std::memcpy(buffer, source->data() + source_position, n);
    source_position += n;
    return static_cast<ssize_t>(n);
}

void ReceivedBytes::set(const std::string* new_source) {
    source = new_source;
    source_position = 0;
}

Connections::~Connections() {
    free_all_connections();
    fake_clock_us += STREAM_LIFETIME_US;
    while (stream_count() != 0) {
        dispose_idle_streams();
    }
    for (const int fd : peers) {
        close(fd);
    }
}

RTMPConnection& Connections::add() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 ||
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &SOCKET_BUFFER_BYTES, sizeof(int)) != 0) {
        give_up("no socket pair");
    }
    RTMPConnection* const conn = new_connection(ends[0], "192.0.2.7:50512");
    if (conn == nullptr) {
        give_up("the table is full");
    }
    conn->read_ahead.enabled = true;
    peers.push_back(ends[1]);
    return *conn;
}

RTMPConnection& Connections::add_publisher(const std::string& stream_name) {
    RTMPConnection& conn = add();
    conn.stream_mode = "publish";
    conn.stream_name = stream_name;
    find_or_insert_stream(stream_name).publisher = conn.conn_idx;
    return conn;
}

RTMPConnection& Connections::add_player(const std::string& stream_name) {
    RTMPConnection& conn = add();
    conn.stream_mode = "play";
    conn.stream_name = stream_name;
    stream_subscribe_for_play(stream_name, conn.conn_idx);
    return conn;
}

bool relay_to_players(RTMPConnection& publisher, RTMP_Packet& pkt) {
    return relay_published_packet(publisher, pkt, find_or_insert_stream(publisher.stream_name));
}

RTMP_Packet packet_of(std::uint8_t type, std::uint32_t timestamp, const std::string& payload) {
    RTMP_Packet pkt;
    pkt.chunk.stream_id = VIDEO_CHUNK_STREAM;
    pkt.chunk.timestamp = timestamp;
    pkt.chunk.message_type_id = type;
    pkt.chunk.message_stream_id = 1;
    pkt.chunk.message_length = static_cast<std::uint32_t>(payload.size());
    if (!pkt.chunk.message.allocate(pkt.chunk.message_length)) {
        give_up("no memory");
    }
    std::memcpy(pkt.chunk.message.data, payload.data(), payload.size());
    return pkt;
}

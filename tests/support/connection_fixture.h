// For unit tests of code that needs real connections in the real table, without their threads.
//
// Link with v9_still_connections. Everything runs on the test's thread, which takes the roles of all
// three threads.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "core/connection.h"
#include "core/connection_table.h"
#include "relay/stream_registry.h"
#include "tests/support/fake_clock.h"
#include "tests/support/queued_payload.h"

// Returns a packet with this payload.
inline RTMP_Packet make_packet(std::uint8_t type, std::uint32_t timestamp, const std::string& payload,
                               std::uint32_t chunk_stream_id = 4, std::uint32_t message_stream_id = 1) {
    RTMP_Packet pkt;
    pkt.chunk.stream_id = chunk_stream_id;
    pkt.chunk.timestamp = timestamp;
    pkt.chunk.message_type_id = type;
    pkt.chunk.message_stream_id = message_stream_id;
    pkt.chunk.message_length = static_cast<std::uint32_t>(payload.size());
    if (!payload.empty()) {
        EXPECT_TRUE(pkt.chunk.message.allocate(static_cast<std::uint32_t>(payload.size())));
        std::memcpy(pkt.chunk.message.data, payload.data(), payload.size());
    }
    return pkt;
}

inline std::string payload_of(const RTMP_Packet& pkt) {
    return {reinterpret_cast<const char*>(pkt.chunk.message.data), pkt.chunk.message.data_length};
}

// A message queued for a client: the header fields that reach the wire, and the payload.
struct QueuedMessage {
    std::uint8_t type = 0;
    std::uint32_t timestamp = 0;
    std::string payload;
    std::uint32_t chunk_stream_id = 4;
    std::uint32_t message_stream_id = 1;

    bool operator==(const QueuedMessage&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const QueuedMessage& message) {
    return stream << "type " << unsigned{message.type} << " timestamp " << message.timestamp << " payload "
                  << testing::PrintToString(message.payload) << " chunk stream " << message.chunk_stream_id
                  << " message stream " << message.message_stream_id;
}

// Empties connection_out, like the writer thread.
inline std::vector<QueuedMessage> take_queued(RTMPConnection& conn) {
    std::vector<QueuedMessage> messages;
    for (const OutgoingPacket& pkt : conn.connection_out) {
        messages.push_back({pkt.chunk.message_type_id, pkt.chunk.timestamp, payload_of(pkt),
                            pkt.chunk.stream_id, pkt.chunk.message_stream_id});
    }
    conn.connection_out.clear();
    return messages;
}

class ConnectionFixture : public testing::Test {
  protected:
    ConnectionFixture() { connections_free_scan = 0; }

    ~ConnectionFixture() override {
        testing::internal::CaptureStderr();
        free_all_connections();
        fake_clock_us += 10000000;
        while (stream_count() != 0) {
            dispose_idle_streams();
        }
        testing::internal::GetCapturedStderr();
        for (const auto& [slot, fd] : peers) {
            close(fd);
        }
    }

    // Adds a connection to the table. peer(conn) is the peer's end of its socket.
    RTMPConnection& add_connection(const char* address = "192.0.2.7:50512") {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        RTMPConnection* const conn = new_connection(fds[0], address);
        EXPECT_NE(conn, nullptr);
        const auto [peer_of_slot, is_new_slot] = peers.try_emplace(conn->conn_idx, fds[1]);
        if (!is_new_slot) {
            close(peer_of_slot->second);
            peer_of_slot->second = fds[1];
        }
        return *conn;
    }

    int peer(const RTMPConnection& conn) { return peers.at(conn.conn_idx); }

    // Reads and returns what the peer has not read yet.
    std::string arrived(const RTMPConnection& conn) {
        std::string bytes(1 << 20, '\0');
        const ssize_t length = recv(peer(conn), bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return bytes;
    }

    // Runs the action and returns what it printed on standard error.
    template <typename Action>
    std::string printed_by(Action action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

  private:
    std::map<std::size_t, int> peers;
};

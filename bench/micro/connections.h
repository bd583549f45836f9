// Connections in the server's own table for benchmarks, with a stopped clock and idle threads. The benchmark
// holds the peer's end of each socket pair.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/connection.h"

// The data of the wrapped recv(2). While set, the server receives these bytes in a loop.
struct ReceivedBytes {
    static void set(const std::string* new_source);
};

class Connections {
  public:
    Connections() = default;
    ~Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    RTMPConnection& add();
    RTMPConnection& add_publisher(const std::string& stream_name);
    RTMPConnection& add_player(const std::string& stream_name);
    // The peer's end of the connection added as number idx.
    int peer(std::size_t idx) const { return peers.at(idx); }

  private:
    std::vector<int> peers;
};

// Does what the main thread does with a publisher's audio or video message.
[[nodiscard]] bool relay_to_players(RTMPConnection& publisher, RTMP_Packet& pkt);

RTMP_Packet packet_of(std::uint8_t type, std::uint32_t timestamp, const std::string& payload);

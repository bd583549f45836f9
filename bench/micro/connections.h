// Connections of the server's own table for benchmarks, on a clock that stands still and with threads that do
// nothing. The peer's end of each socket pair is the benchmark's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/connection.h"

// Of the wrapped recv(2): what the server receives comes from here as long as it is set, and begins again at
// its end.
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
    // The peer's end of the connection that was added as this one.
    int peer(std::size_t idx) const { return peers.at(idx); }

  private:
    std::vector<int> peers;
};

// What the main thread does with a publisher's audio or video message.
[[nodiscard]] bool relay_to_players(RTMPConnection& publisher, RTMP_Packet& pkt);

RTMP_Packet packet_of(std::uint8_t type, std::uint32_t timestamp, const std::string& payload);

// A visit by a client of a storm. It reaches some point of a session and is ended there in a random way.
// Another client may end it earlier.
//
// 1. The server may close at any moment. If it neither answers nor closes, the test fails.
// 2. This code accesses the server only through its sockets.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/rtmp_client.h"

// The stream that is live during the storm, for its players. Visitors do not publish it.
inline const std::string LIVE_STREAM = "live";

using Random = std::mt19937_64;
// Returns a random number from 0 to limit - 1.
inline std::size_t draw(Random& random, std::size_t limit) {
    return static_cast<std::size_t>(random() % limit);
}
// Waits a random time shorter than this.
void linger(Random& random, std::size_t less_than_ms);

// One visitor: the clients it has opened, and its random choices.
class Visit {
  public:
    // number makes its stream name unique.
    Visit(Random& visitor_random, std::size_t number);

    // Each connects once the accept queue has room, and proceeds to the named state. Throws TestFailure if
    // this fails.
    RtmpClient& open(int receive_buffer_bytes = 0);
    RtmpClient& open_handshaken(int receive_buffer_bytes = 0);
    RtmpClient& open_connected(int receive_buffer_bytes = 0);
    RtmpClient& open_publisher();
    RtmpClient& open_player(const std::string& stream_name, int receive_buffer_bytes = 0);
    // Returns the clients that the visit has not closed itself.
    std::vector<RtmpClient*> open_clients();
    // Whether the server has ended one of the clients, on request or not. Discards their unread data.
    bool was_interrupted();
    // Waits for the next message of this type. Throws TestFailure if the visit is interrupted or no such
    // message arrives.
    void await_message(RtmpClient& client, std::uint8_t type);
    void await_interruption();

    Random& random;
    const std::string own_stream;
    std::deque<RtmpClient> clients;
    // Its media is held, so closing alone does not end it.
    bool held = false;

  private:
    bool await_hang_up(Milliseconds wait);
};

// The points of a session that a visit may reach, and the ways to end it there.
const std::vector<void (*)(Visit&)>& visit_points();
const std::vector<void (*)(Visit&, ControlPeer&)>& visit_ends();

// Drops every connection on this stream. With an empty name, all that have not chosen a stream.
void drop_by_stream_name(ControlPeer& control, const std::string& stream_name);

// A line of the server's list of connections.
struct ListedConnection {
    std::string id;
    std::string stream_name;
    std::string address;
};
std::vector<ListedConnection> list_connections(ControlPeer& control);
// Drops each by its id, if it is still on the listed stream.
void drop_listed(ControlPeer& control, const std::vector<ListedConnection>& connections);

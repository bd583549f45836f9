// What a client of a storm does: it comes as far as some point of a session and is ended there, in a way that
// is drawn by lot, and somebody else may end it before.
//
// 1. A server that closes is expected at every moment; one that neither answers nor closes is a failure.
// 2. Nothing here knows the server but through its sockets.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/rtmp_client.h"

// The stream that is live beside the storm, for players of the storm; nobody of the storm publishes it.
inline const std::string LIVE_STREAM = "live";

using Random = std::mt19937_64;
// From 0 to limit - 1.
inline std::size_t draw(Random& random, std::size_t limit) {
    return static_cast<std::size_t>(random() % limit);
}

// One visitor: the clients that it has opened, and what it draws.
class Visit {
  public:
    // number makes its stream name its own.
    Visit(Random& visitor_random, std::size_t number);

    // Each connects, once there is room in the accept queue, and comes so far. Throws TestFailure when it
    // does not.
    RtmpClient& open(int receive_buffer_bytes = 0);
    RtmpClient& open_handshaken();
    RtmpClient& open_connected(int receive_buffer_bytes = 0);
    RtmpClient& open_publisher();
    RtmpClient& open_player(const std::string& stream_name, int receive_buffer_bytes = 0);
    // Whether the server, or somebody who asked it to, has ended one of the clients. What they were still to
    // read is gone.
    bool was_interrupted();
    // Waits for the next message of that type. Throws TestFailure when the visit is interrupted or
    // nothing comes.
    void await_message(RtmpClient& client, std::uint8_t type);
    void await_interruption();

    Random& random;
    const std::string own_stream;
    std::deque<RtmpClient> clients;
    // What it has published is held back, so that closing alone does not end it.
    bool held = false;

  private:
    bool await_hang_up(Milliseconds wait);
};

struct VisitPoint {
    const char* name;
    void (*come_to)(Visit& visit);
};
const std::vector<VisitPoint>& visit_points();

struct VisitEnd {
    const char* name;
    // What is held back outlives a client that closes, and is not ended by this alone.
    bool needs_free_media;
    // Drops by the number of a slot that may be somebody else's by then.
    bool may_hit_others;
    void (*carry_out)(Visit& visit, ControlPeer& control);
};
const std::vector<VisitEnd>& visit_ends();

// Drops every connection that has chosen this stream; with an empty name, all that have not chosen one yet.
void drop_by_stream_name(ControlPeer& control, const std::string& stream_name);

// A line of the server's list of connections.
struct ListedConnection {
    std::string id;
    std::string stream_name;
    std::string address;
};
std::vector<ListedConnection> list_connections(ControlPeer& control);
// Each by its id, if it still is at the stream that was listed.
void drop_listed(ControlPeer& control, const std::vector<ListedConnection>& connections);

// What stands behind the public packet: its texts, how far it is written and, of a request that a server
// handed out, who keeps count of it. Used by the thread that owns the packet.
#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "comm_socket/include/comm_socket_v4.h"
#include "comm_socket/wire.h"

namespace comm_socket {

//   EMPTY --begin_writing--> WRITING --write_end--> COMPLETE      begin_writing leads back to WRITING from
//   anywhere; a received packet is COMPLETE from the start                  only a COMPLETE packet can be
//   sent
enum class PacketState { EMPTY, WRITING, COMPLETE };

// The requests of one server that were handed out and not released. The list holds the packets, so that
// destroying the server can free those that nobody released.
using HeldRequests = std::list<comm_socket_v4_packet*>;

// A packet with these texts, COMPLETE. Throws std::bad_alloc.
comm_socket_v4_packet* make_packet(const FrameHead& head, FrameText&& text);

// Enters the request in held and counts it in *unreleased, until it is released. Throws std::bad_alloc; then
// nothing has changed.
void hold_request(comm_socket_v4_packet* packet, HeldRequests* held,
                  const std::shared_ptr<std::size_t>& unreleased);

FrameHead head_of(const comm_socket_v4_packet* packet);

}  // namespace comm_socket

struct comm_socket_v4_content {
    // Replaced, not changed, once the packet is COMPLETE: replies on their way out share it.
    std::shared_ptr<comm_socket::FrameText> text = std::make_shared<comm_socket::FrameText>();
    comm_socket::PacketState state = comm_socket::PacketState::EMPTY;
    std::uint64_t body_bytes = 0;  // encoded, while it is written

    // Of a request in held; null and empty otherwise.
    comm_socket::HeldRequests* held = nullptr;
    comm_socket::HeldRequests::iterator position;
    std::shared_ptr<std::size_t> unreleased;  // of the client; shared, because the client may be freed first
};

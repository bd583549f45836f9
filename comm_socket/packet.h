// The private part of the public packet: its texts, the state of writing and, for a request that a server has
// handed out, the list and counter it is registered with. Used by the thread that owns the packet.
#pragma once

#include <comm_socket_v4.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "comm_socket/wire.h"

namespace comm_socket {

//   EMPTY --begin_writing--> WRITING --write_end--> COMPLETE
//
// begin_writing leads to WRITING from every state. A received packet is COMPLETE from the start. Only a
// COMPLETE packet can be sent.
enum class PacketState { EMPTY, WRITING, COMPLETE };

// The requests of one server that have been handed out and not released. Destroying the server frees the
// packets that are left in the list.
using HeldRequests = std::list<comm_socket_v4_packet*>;

// Creates a COMPLETE packet with these texts. Throws std::bad_alloc.
comm_socket_v4_packet* make_packet(const FrameHead& head, FrameText&& text);

// Adds the request to held and counts it in *unreleased until it is released. If it throws std::bad_alloc,
// nothing has changed.
void hold_request(comm_socket_v4_packet* packet, HeldRequests* held,
                  const std::shared_ptr<std::size_t>& unreleased);

FrameHead head_of(const comm_socket_v4_packet* packet);

}  // namespace comm_socket

struct comm_socket_v4_content {
    // Never modified once the packet is COMPLETE, only replaced, because queued replies share it.
    std::shared_ptr<comm_socket::FrameText> text = std::make_shared<comm_socket::FrameText>();
    comm_socket::PacketState state = comm_socket::PacketState::EMPTY;
    std::uint64_t body_bytes = 0;                      // encoded size so far, while the packet is written
    std::map<std::size_t, std::string> joined_values;  // joined values that have been read, by pair index

    // For a request in held; null and empty otherwise.
    comm_socket::HeldRequests* held = nullptr;
    comm_socket::HeldRequests::iterator position;
    std::shared_ptr<std::size_t> unreleased;  // the client's; shared, because the client may be freed first
};

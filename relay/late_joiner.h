// The sequence headers of a player that joined after the publisher had sent them. Main thread.
#pragma once

#include "core/connection.h"
#include "relay/relayed_message.h"

// Before a player's first audio (or video) message: queues the publisher's saved header of that kind with the
// message's output timestamp, unless the message is the header itself or none was saved. From then on no header is
// ever repeated to this player.
void deliver_sequence_header(RTMPConnection& player, const RTMPConnection& publisher,
                             const RelayedMessage& message, std::uint32_t output_timestamp) ON_MAIN_THREAD;

// Sends saved sequence headers to players that joined after the publisher sent them. Main thread.
#pragma once

#include <cstdint>

#include "core/connection.h"
#include "relay/relayed_message.h"

// Call before each message is queued for a player. Before the player's first audio (or video) message, queues
// the publisher's saved header of that kind with the message's output timestamp, unless the message is itself
// a header or none is saved. Afterwards no header of that kind is repeated to this player.
void deliver_sequence_header(RTMPConnection& player, const RTMPConnection& publisher,
                             const RelayedMessage& message, std::uint32_t output_timestamp) ON_MAIN_THREAD;

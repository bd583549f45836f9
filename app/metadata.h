// AMF0 data messages: keeps the metadata of a stream, forwards it to players and detects changes of
// format. Main thread.
#pragma once

#include "amf/amf_value.h"
#include "core/connection.h"

// Handles an AMF0 data message. Returns false if it is malformed; the connection is then dropped.
[[nodiscard]] bool handle_data_message(RTMPConnection& conn, const RTMP_Packet& pkt) ON_MAIN_THREAD;

// Sends a publisher's metadata to one player as "onMetaData". If its picture size or a codec differs from
// what the player was told, drops the player instead, even if the metadata could not have been sent. Takes no
// lock; the caller holds the player's.
void send_metadata(RTMPConnection& player, const StreamMetadata& metadata)
    REQUIRES(player.mutex, MAIN_THREAD);

// Sends the publisher's metadata to every player of its stream.
void forward_metadata_to_players(const RTMPConnection& publisher) ON_MAIN_THREAD;

// Whether the metadata is an object or an ECMA array. Other values are not sent to players. It may still be
// too large to send.
[[nodiscard]] bool is_stream_metadata(const StreamMetadata& metadata);

// Returns "width", "height", "audiocodecid" and "videocodecid" of metadata, rounded half up. A member that is
// absent, is not a number, or does not fit its field (including NaN and infinities) is unknown.
[[nodiscard]] StreamFormat read_stream_format(const AMF_Value& metadata);

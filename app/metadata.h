// AMF0 data messages: the metadata of a stream, kept, broadcast, and watched for a change of format. Main
// thread.
#pragma once

#include "core/connection.h"

// Handles an AMF0 data message. False when it is malformed: the connection is dropped.
[[nodiscard]] bool handle_data_message(RTMPConnection& conn, const RTMP_Packet& pkt) ON_MAIN_THREAD;

// Sends a publisher's metadata to one player as "onMetaData", unless it tells another picture size or codec
// than the player was told before: then the player is dropped, also when the metadata cannot be sent. Takes no lock;
// the caller holds the player's.
void send_metadata(RTMPConnection& player, const StreamMetadata& metadata)
    REQUIRES(player.mutex, MAIN_THREAD);

// Sends the publisher's metadata to every player of its stream.
void forward_metadata_to_players(const RTMPConnection& publisher) ON_MAIN_THREAD;

// Whether players are told of it at all: it is an object or an ECMA array. It may be too large to be sent all the same.
[[nodiscard]] bool is_stream_metadata(const StreamMetadata& metadata);

// "width", "height", "audiocodecid" and "videocodecid" of metadata, rounded half up. A member that is absent,
// not a number, or does not fit its field (NaN and infinities included) is unknown.
[[nodiscard]] StreamFormat read_stream_format(const AMF_Value& metadata);

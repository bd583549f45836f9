// One message on its way from a publisher to the players of its stream. What is the same for all players is
// computed once. Main thread; lives as long as the handling of the message.
#pragma once

#include <cstdint>

#include "core/connection.h"
#include "relay/media_track.h"
#include "rtmp/shared_payload.h"

// Where a kind of media is kept, and what is said about it.
struct MediaKind {
    MediaTrack RTMPConnection::*track;
    std::uint32_t StreamFormat::*codec_id;
    bool (*is_sequence_header)(const RTMP_Packet& pkt);
    const char* format_change_text;
    const char* saving_header_text;
    const char* repeating_header_text;
    const char* codec_changed_text;
};

extern const MediaKind AUDIO_KIND;
extern const MediaKind VIDEO_KIND;

struct RelayedMessage {
    explicit RelayedMessage(const RTMP_Packet& packet);

    const RTMP_Packet& pkt;
    const MediaKind* kind;  // null: neither audio nor video
    bool is_sequence_header;
    SharedPayload payload;  // what players are sent; holds nothing if pkt is empty or there was no memory

    // Whether payload holds the whole payload of pkt.
    [[nodiscard]] bool is_laid_out() const {
        return payload.payload_bytes() == pkt.chunk.message.data_length;
    }
};

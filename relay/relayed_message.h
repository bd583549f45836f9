// A message being relayed from a publisher to the players of its stream. Holds what is computed once for all
// players. Main thread; exists only while the message is handled.
#pragma once

#include <cstdint>

#include "core/connection.h"
#include "rtmp/shared_payload.h"

// The fields and message texts of one kind of media.
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
    const MediaKind* kind;  // null if it is neither audio nor video
    bool is_sequence_header;
    SharedPayload payload;  // sent to players; holds nothing if pkt is empty or there was no memory

    // Whether payload holds the whole payload of pkt.
    [[nodiscard]] bool is_laid_out() const {
        return payload.payload_bytes() == pkt.chunk.message.data_length;
    }
};

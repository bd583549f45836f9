#include "relay/codec_lock.h"

#include "rtmp/message_types.h"

namespace {

std::int32_t codec_nibble(const RTMP_Packet& pkt) {
    const unsigned char first = pkt.chunk.message.data[0];
    return pkt.chunk.message_type_id == MESSAGE_AUDIO ? first >> 4 : first & 0x0F;
}

}  // namespace

CodecLock check_codec_lock(std::int32_t& lock_type, std::uint32_t metadata_codec_id, const RTMP_Packet& pkt) {
    if (metadata_codec_id != 0) {
        const auto wanted = static_cast<std::int32_t>(metadata_codec_id);
        if (lock_type == wanted) {
            return CodecLock::KEPT;
        }
        lock_type = wanted;
        return CodecLock::FROM_METADATA;
    }
    if (pkt.chunk.message.data == nullptr || pkt.chunk.message.data_length < 2) {
        return CodecLock::KEPT;
    }
    const std::int32_t codec = codec_nibble(pkt);
    if (lock_type == NO_CODEC_LOCK) {
        lock_type = codec;
        return CodecLock::FROM_PAYLOAD;
    }
    return lock_type == codec ? CodecLock::KEPT : CodecLock::FORMAT_CHANGED;
}

bool agree_on_codec(std::int32_t& player_lock_type, std::int32_t publisher_lock_type) {
    if (player_lock_type == NO_CODEC_LOCK) {
        player_lock_type = publisher_lock_type;
    }
    return player_lock_type == publisher_lock_type;
}

FourCcText fourcc_text(std::uint32_t codec_id) {
    return {{static_cast<char>(codec_id >> 24), static_cast<char>(codec_id >> 16),
             static_cast<char>(codec_id >> 8), static_cast<char>(codec_id), '\0'}};
}

#include "rtmp/media_probe.h"

namespace {

constexpr unsigned SOUND_FORMAT_AAC = 10;
constexpr unsigned VIDEO_CODEC_AVC = 7;
constexpr unsigned EXTENDED_VIDEO_HEADER = 0x80;
constexpr unsigned PACKET_TYPE_SEQUENCE_HEADER = 0;

bool has_two_bytes(const RTMP_Packet& pkt) {
    return pkt.chunk.message.data != nullptr && pkt.chunk.message.data_length >= 2;
}

}  // namespace

bool is_aac_sequence_header(const RTMP_Packet& pkt) {
    if (!has_two_bytes(pkt)) {
        return false;
    }
    const unsigned char* const data = pkt.chunk.message.data;
    return data[0] >> 4 == SOUND_FORMAT_AAC && data[1] == PACKET_TYPE_SEQUENCE_HEADER;
}

bool is_video_sequence_header(const RTMP_Packet& pkt) {
    if (!has_two_bytes(pkt)) {
        return false;
    }
    const unsigned char* const data = pkt.chunk.message.data;
    const unsigned low_nibble = data[0] & 0x0FU;
    if ((data[0] & EXTENDED_VIDEO_HEADER) != 0 && low_nibble == PACKET_TYPE_SEQUENCE_HEADER) {
        return true;
    }
    return low_nibble == VIDEO_CODEC_AVC && data[1] == PACKET_TYPE_SEQUENCE_HEADER;
}

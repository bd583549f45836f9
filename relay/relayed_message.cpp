#include "relay/relayed_message.h"

#include "rtmp/media_probe.h"
#include "rtmp/message_types.h"

const MediaKind AUDIO_KIND{.track = &RTMPConnection::audio,
                           .codec_id = &StreamFormat::audio_codec_id,
                           .is_sequence_header = is_aac_sequence_header,
                           .format_change_text = "Audio format change\n",
                           .saving_header_text = "RTMP: Saving a copy of the audio sequence header\n",
                           .repeating_header_text = "Relay: Repeating audio sequence header\n",
                           .codec_changed_text = "Publisher changed audio codec\n"};

const MediaKind VIDEO_KIND{.track = &RTMPConnection::video,
                           .codec_id = &StreamFormat::video_codec_id,
                           .is_sequence_header = is_video_sequence_header,
                           .format_change_text = "Video format change\n",
                           .saving_header_text = "RTMP: Saving a copy of the H.264 sequence header\n",
                           .repeating_header_text = "Relay: Repeating video sequence header\n",
                           .codec_changed_text = "Publisher changed video codec\n"};

namespace {

const MediaKind* kind_of(std::uint8_t type) {
    if (type == MESSAGE_AUDIO) {
        return &AUDIO_KIND;
    }
    return type == MESSAGE_VIDEO ? &VIDEO_KIND : nullptr;
}

}  // namespace

RelayedMessage::RelayedMessage(const RTMP_Packet& packet)
    : pkt(packet),
      kind(kind_of(packet.chunk.message_type_id)),
      is_sequence_header(kind != nullptr && kind->is_sequence_header(packet)) {}

#include "relay/late_joiner.h"

#include <utility>

#include "base/diag.h"
#include "rtmp/media_probe.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_queues.h"

namespace {

void repeat_header(RTMPConnection& player, bool& delivered, const RTMP_Packet& saved, const char* text,
                   std::uint32_t output_timestamp) {
    if (!delivered && saved.chunk.message.data_length != 0) {
        diag("%s", text);
        RTMP_Packet copy;
        copy.copy_header_from(saved);
        copy.chunk.timestamp = output_timestamp;
        // Without memory or lock the player goes without; its picture begins with the publisher's next header.
        if (saved.chunk.message.copy_to(copy.chunk.message)) {
            static_cast<void>(queue_outgoing(player, std::move(copy), OTHER_UNLOCK_EXPRESSION));
        }
    }
    delivered = true;
}

}  // namespace

void deliver_sequence_header(RTMPConnection& player, const RTMPConnection& publisher, const RTMP_Packet& pkt,
                             std::uint32_t output_timestamp) {
    if (pkt.chunk.message_type_id == MESSAGE_VIDEO) {
        if (is_video_sequence_header(pkt)) {
            player.timebase.video_header_delivered = true;
        } else {
            repeat_header(player, player.timebase.video_header_delivered, publisher.video_seq_header,
                          "Relay: Repeating video sequence header\n", output_timestamp);
        }
    }
    if (pkt.chunk.message_type_id == MESSAGE_AUDIO) {
        if (is_aac_sequence_header(pkt)) {
            player.timebase.audio_header_delivered = true;
        } else {
            repeat_header(player, player.timebase.audio_header_delivered, publisher.audio_seq_header,
                          "Relay: Repeating audio sequence header\n", output_timestamp);
        }
    }
}

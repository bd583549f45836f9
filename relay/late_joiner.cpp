#include "relay/late_joiner.h"

#include <utility>

#include "base/diag.h"
#include "rtmp/packet_queues.h"

namespace {

void repeat_header(RTMPConnection& player, const RTMP_Packet& saved, const char* text,
                   std::uint32_t output_timestamp) {
    diag("%s", text);
    RTMP_Packet copy;
    copy.copy_header_from(saved);
    copy.chunk.timestamp = output_timestamp;
    // If there is no memory or the lock fails, the player gets no header and has to wait for the publisher's
    // next header.
    if (saved.chunk.message.copy_to(copy.chunk.message)) {
        static_cast<void>(queue_outgoing(player, std::move(copy)));
    }
}

}  // namespace

void deliver_sequence_header(RTMPConnection& player, const RTMPConnection& publisher,
                             const RelayedMessage& message, std::uint32_t output_timestamp) {
    if (message.kind == nullptr) {
        return;
    }
    MediaTrack& track = player.*message.kind->track;
    const RTMP_Packet& saved = (publisher.*message.kind->track).seq_header;
    if (!message.is_sequence_header && !track.header_delivered && saved.chunk.message.data_length != 0) {
        repeat_header(player, saved, message.kind->repeating_header_text, output_timestamp);
    }
    track.header_delivered = true;
}

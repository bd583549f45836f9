#include "relay/av_relay.h"

#include <utility>
#include <vector>

#include "base/check.h"
#include "base/clock.h"
#include "base/diag.h"
#include "core/connection_table.h"
#include "relay/codec_lock.h"
#include "relay/late_joiner.h"
#include "relay/stream_registry.h"
#include "rtmp/media_probe.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_dump.h"
#include "rtmp/packet_queues.h"

namespace {

bool lock_audio(RTMPConnection& publisher, const RTMP_Packet& pkt) ON_MAIN_THREAD {
    const std::uint32_t codec_id = publisher.stream_format.audio_codec_id;
    switch (check_codec_lock(publisher.audio_lock_type, codec_id, pkt)) {
        case CodecLock::KEPT:
            return true;
        case CodecLock::FROM_METADATA:
            diag("Lock on audio type %d (0x%x) '%s'\n", static_cast<int>(codec_id), codec_id,
                 fourcc_text(codec_id).text);
            return true;
        case CodecLock::FROM_PAYLOAD:
            diag("Lock on audio type %d\n", publisher.audio_lock_type);
            return true;
        case CodecLock::FORMAT_CHANGED:
            diag("Audio format change\n");
            return false;
    }
    CHECK(false);
    return false;
}

bool lock_video(RTMPConnection& publisher, const RTMP_Packet& pkt) ON_MAIN_THREAD {
    const std::uint32_t codec_id = publisher.stream_format.video_codec_id;
    switch (check_codec_lock(publisher.video_lock_type, codec_id, pkt)) {
        case CodecLock::KEPT:
            return true;
        case CodecLock::FROM_METADATA:
            diag("Lock on video type %d (0x%x) '%s'\n", static_cast<int>(codec_id), codec_id,
                 fourcc_text(codec_id).text);
            return true;
        case CodecLock::FROM_PAYLOAD:
            diag("Lock on video type %d\n", publisher.video_lock_type);
            return true;
        case CodecLock::FORMAT_CHANGED:
            diag("Video format change\n");
            return false;
    }
    CHECK(false);
    return false;
}

void save_sequence_header(RTMP_Packet& saved, const RTMP_Packet& pkt) {
    saved.copy_header_from(pkt);
    // Without memory nothing is saved, and late joiners wait for the next header.
    static_cast<void>(pkt.chunk.message.copy_to(saved.chunk.message));
}

// The codec lock and the saved sequence headers of the publisher.
bool inspect_published_packet(RTMPConnection& publisher, const RTMP_Packet& pkt) ON_MAIN_THREAD {
    if (pkt.chunk.message_type_id == MESSAGE_VIDEO) {
        if (!lock_video(publisher, pkt)) {
            return false;
        }
        if (is_video_sequence_header(pkt)) {
            save_sequence_header(publisher.video_seq_header, pkt);
            diag("RTMP: Saving a copy of the H.264 sequence header\n");
            dump_packet(pkt);
        }
    } else if (pkt.chunk.message_type_id == MESSAGE_AUDIO) {
        if (!lock_audio(publisher, pkt)) {
            return false;
        }
        if (is_aac_sequence_header(pkt)) {
            save_sequence_header(publisher.audio_seq_header, pkt);
            diag("RTMP: Saving a copy of the audio sequence header\n");
            dump_packet(pkt);
        }
    }
    return true;
}

// False when the player was told another codec than the publisher now sends; it is dropped then.
bool agree_with_publisher(RTMPConnection& player, const RTMPConnection& publisher,
                          std::uint8_t type) ON_MAIN_THREAD {
    if (type == MESSAGE_AUDIO && !agree_on_codec(player.audio_lock_type, publisher.audio_lock_type)) {
        diag("Publisher changed audio codec\n");
        player.close_requested = true;
        return false;
    }
    if (type == MESSAGE_VIDEO && !agree_on_codec(player.video_lock_type, publisher.video_lock_type)) {
        diag("Publisher changed video codec\n");
        player.close_requested = true;
        return false;
    }
    return true;
}

}  // namespace

bool RTMPConnection::relay_from_publisher(RTMP_Packet& pkt, RTMPConnection& publisher) {
    CHECK(&publisher != this);
    CHECK(publisher.conn_idx != conn_idx);
    const std::uint8_t type = pkt.chunk.message_type_id;
    if (fd < 0 || !agree_with_publisher(*this, publisher, type)) {
        return false;
    }
    if (is_audio_or_video(type) && !timebase.timebase_set) {
        diag("From publisher to connection: source timebase %lu, add %lu\n",
             static_cast<unsigned long>(pkt.chunk.timestamp),
             static_cast<unsigned long>(timebase.timestamp_offset));
        start_timebase(timebase, av_start_us, pkt.chunk.timestamp, monotonic_clock_us());
    }
    const std::uint32_t output_timestamp = rebase(timebase, pkt.chunk.timestamp);
    deliver_sequence_header(*this, publisher, pkt, output_timestamp);
    RTMP_Packet copy;
    copy.copy_header_from(pkt);
    copy.chunk.timestamp = output_timestamp;
    if (!pkt.chunk.message.copy_to(copy.chunk.message)) {
        return false;
    }
    note_sent(timebase, output_timestamp);
    return queue_outgoing(*this, std::move(copy), OTHER_UNLOCK_EXPRESSION);
}

bool relay_published_packet(RTMPConnection& publisher, RTMP_Packet& pkt) {
    if (publisher.stream_mode != "publish") {
        diag("A/V packet when stream mode is '%s' not allowed\n", publisher.stream_mode.c_str());
        return false;
    }
    if (publisher.stream_name.empty()) {
        diag("A/V packet without a stream name\n");
        return false;
    }
    if (!inspect_published_packet(publisher, pkt)) {
        return false;
    }
    StreamRecord& record = find_or_insert_stream(publisher.stream_name);
    record.last_activity_us = monotonic_clock_us();
    if (record.publisher != publisher.conn_idx) {
        return true;
    }
    std::vector<std::size_t> dead;
    for (const std::size_t player_idx : record.players) {
        RTMPConnection* const player = get_connection(player_idx);
        if (player == nullptr) {
            diag("BUG: Dead subscriber\n");
            dead.push_back(player_idx);
        } else if (!player->relay_from_publisher(pkt, publisher)) {
            diag("Relay fail\n");
        }
    }
    for (const std::size_t player_idx : dead) {
        stream_unsubscribe_for_play(publisher.stream_name, player_idx);
    }
    return true;
}

#include "app/publisher_media.h"

#include <cstddef>

#include "base/clock.h"
#include "base/diag.h"
#include "core/connection_table.h"
#include "core/limits.h"
#include "core/switches.h"
#include "relay/av_relay.h"
#include "relay/stream_registry.h"
#include "relay/time_reset.h"

namespace {

constexpr std::uint64_t STALL_US = 2500000;

// Some encoders ignore the id from createStream and use message stream 1. Their id is adopted once.
void adopt_stream_id(RTMPConnection& conn, std::uint32_t message_stream_id) ON_MAIN_THREAD {
    if (message_stream_id != conn.stream_id && conn.stream_id_unconfirmed) {
        conn.stream_id_unconfirmed = false;
        conn.stream_id = message_stream_id;
        diag("Hrmph, RTMP publisher ignored stream ID in reply. Using %lu\n",
             static_cast<unsigned long>(message_stream_id));
    }
}

// Starts the pacing clock. intended: av_start_ts is set by the first message whose timestamp is not 0.
void note_media(RTMPConnection& conn, std::uint32_t timestamp, std::uint64_t now_us) ON_MAIN_THREAD {
    if (conn.av_start_us == 0) {
        conn.av_start_us = now_us;
    }
    if (conn.av_start_ts == 0) {
        conn.av_start_ts = timestamp;
    }
    // Messages that are then held back count too: their publisher is ahead, not stalled.
    conn.stall_deadline_us = now_us + STALL_US;
}

// Returns the publisher in a slot if it has stalled, otherwise null.
RTMPConnection* find_stalled_publisher(std::size_t publisher_idx, std::uint64_t now_us) ON_MAIN_THREAD {
    RTMPConnection* const publisher = get_connection(publisher_idx);
    const bool has_stalled =
        publisher != nullptr && publisher->stream_mode == "publish" && publisher->stall_deadline_us <= now_us;
    return has_stalled ? publisher : nullptr;
}

void drop_stalled_publisher(RTMPConnection& publisher) ON_MAIN_THREAD {
    diag("Existing RTMP publisher for stream stalled, taking over as publisher\n");
    publisher.stall_deadline_us = 0;
    publisher.close_requested = true;
}

// Makes the connection the publisher of its stream if there is none or the current one has stalled.
void claim_stream(const RTMPConnection& conn, StreamRecord& record, std::uint64_t now_us) ON_MAIN_THREAD {
    if (record.publisher == conn.conn_idx) {
        return;
    }
    if (record.publisher != NO_CONNECTION) {
        RTMPConnection* const stalled = find_stalled_publisher(record.publisher, now_us);
        if (stalled == nullptr) {
            return;
        }
        drop_stalled_publisher(*stalled);
        stream_unsubscribe_for_play(conn.stream_name, conn.conn_idx);
    }
    set_publisher(record, conn.conn_idx);
}

}  // namespace

std::uint32_t pacing_limit(std::uint64_t av_start_us, std::uint32_t av_start_ts, std::uint64_t now_us) {
    const std::uint64_t elapsed_us = now_us > av_start_us ? now_us - av_start_us : 0;
    return av_start_ts + static_cast<std::uint32_t>(elapsed_us / US_PER_MS);
}

MediaResult handle_media(RTMPConnection& conn, RTMP_Packet& pkt) {
    const std::uint32_t timestamp = pkt.chunk.timestamp;
    if (opt_dbg_pkt) {
        diag_stdout("A/V %lu %p\n", static_cast<unsigned long>(timestamp), static_cast<const void*>(&pkt));
    }
    if (conn.stream_mode != "publish") {
        return MediaResult::DONE;
    }
    const std::uint64_t now_us = monotonic_clock_us();
    adopt_stream_id(conn, pkt.chunk.message_stream_id);
    note_media(conn, timestamp, now_us);
    StreamRecord& record = find_or_insert_stream(conn.stream_name);
    claim_stream(conn, record, now_us);
    if (timestamp > pacing_limit(conn.av_start_us, conn.av_start_ts, now_us)) {
        return MediaResult::HELD;
    }
    if (!relay_published_packet(conn, pkt, record)) {
        diag("A/V error\n");
        conn.close_requested = true;
    }
    return MediaResult::DONE;
}

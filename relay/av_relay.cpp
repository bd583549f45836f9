#include "relay/av_relay.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/check.h"
#include "base/clock.h"
#include "base/diag.h"
#include "core/connection_table.h"
#include "core/limits.h"
#include "relay/codec_lock.h"
#include "relay/late_joiner.h"
#include "relay/relayed_message.h"
#include "relay/stream_registry.h"
#include "rtmp/packet_dump.h"
#include "rtmp/packet_queues.h"
#include "rtmp/shared_payload.h"

namespace {

// Whether the publisher keeps its codec. Prints one line if the message sets the lock or breaks it.
bool lock_codec(RTMPConnection& publisher, const MediaKind& kind, const RTMP_Packet& pkt) ON_MAIN_THREAD {
    const bool audio = &kind == &AUDIO_KIND;
    std::int32_t& lock_type = (publisher.*kind.track).lock_type;
    const std::uint32_t codec_id = publisher.stream_format.*kind.codec_id;
    switch (check_codec_lock(lock_type, codec_id, pkt)) {
        case CodecLock::KEPT:
            return true;
        case CodecLock::FROM_METADATA:
            diag(audio ? "Lock on audio type %d (0x%x) '%s'\n" : "Lock on video type %d (0x%x) '%s'\n",
                 static_cast<int>(codec_id), codec_id, fourcc_text(codec_id).text);
            return true;
        case CodecLock::FROM_PAYLOAD:
            diag(audio ? "Lock on audio type %d\n" : "Lock on video type %d\n", lock_type);
            return true;
        case CodecLock::FORMAT_CHANGED:
            return refuse("%s", kind.format_change_text);
    }
    CHECK(false);
    return false;
}

void save_sequence_header(RTMPConnection& publisher, const MediaKind& kind,
                          const RTMP_Packet& pkt) ON_MAIN_THREAD {
    RTMP_Packet& saved = (publisher.*kind.track).seq_header;
    saved.copy_header_from(pkt);
    // If there is no memory, nothing is saved, and late joiners wait for the next header.
    static_cast<void>(pkt.chunk.message.copy_to(saved.chunk.message));
    diag("%s", kind.saving_header_text);
    dump_packet(pkt);
}

// Whether the player may get the message. Drops the player if the publisher's codec is no longer the one that
// the player was given.
bool agree_with_publisher(RTMPConnection& player, const RTMPConnection& publisher,
                          const MediaKind& kind) ON_MAIN_THREAD {
    if (agree_on_codec((player.*kind.track).lock_type, (publisher.*kind.track).lock_type)) {
        return true;
    }
    player.close_requested = true;
    return refuse("%s", kind.codec_changed_text);
}

// Returns the most common output chunk size of the players. Never below the default, because each chunk adds
// a header to the shared payload.
std::uint32_t chunk_size_of_most(const std::vector<std::size_t>& players) ON_MAIN_THREAD {
    struct Tally {
        std::uint32_t chunk_size;
        std::size_t players;
    };
    std::array<Tally, MAX_CONNECTIONS> tallies;
    auto* tallies_end = tallies.begin();
    for (const std::size_t player_idx : players) {
        const RTMPConnection* const player = get_connection(player_idx);
        if (player == nullptr) {
            continue;
        }
        const std::uint32_t chunk_size = player->conn_g_server.chunk_size.load(std::memory_order_relaxed);
        auto* const found = std::find_if(tallies.begin(), tallies_end,
                                         [&](const Tally& tally) { return tally.chunk_size == chunk_size; });
        if (found != tallies_end) {
            ++found->players;
        } else {
            *tallies_end++ = {chunk_size, 1};
        }
    }
    const auto* const most = std::max_element(
        tallies.begin(), tallies_end, [](const Tally& a, const Tally& b) { return a.players < b.players; });
    return most == tallies_end ? DEFAULT_CHUNK_SIZE : std::max(most->chunk_size, DEFAULT_CHUNK_SIZE);
}

}  // namespace

bool RTMPConnection::relay_from_publisher(const RelayedMessage& message, RTMPConnection& publisher) {
    CHECK(&publisher != this);
    CHECK(publisher.conn_idx != conn_idx);
    if (fd < 0 || (message.kind != nullptr && !agree_with_publisher(*this, publisher, *message.kind))) {
        return false;
    }
    const std::uint32_t timestamp = message.pkt.chunk.timestamp;
    if (message.kind != nullptr && !timebase.timebase_set) {
        diag("From publisher to connection: source timebase %lu, add %lu\n",
             static_cast<unsigned long>(timestamp), static_cast<unsigned long>(timebase.timestamp_offset));
        start_timebase(timebase, av_start_us, timestamp, monotonic_clock_us());
    }
    const std::uint32_t output_timestamp = rebase(timebase, timestamp);
    deliver_sequence_header(*this, publisher, message, output_timestamp);
    if (!message.is_laid_out()) {
        return false;
    }
    OutgoingPacket outgoing;
    outgoing.copy_header_from(message.pkt);
    outgoing.chunk.timestamp = output_timestamp;
    outgoing.shared = message.payload.share();
    note_sent(timebase, output_timestamp);
    return queue_outgoing(*this, std::move(outgoing));
}

bool relay_published_packet(RTMPConnection& publisher, const RTMP_Packet& pkt, StreamRecord& record) {
    if (publisher.stream_mode != "publish") {
        return refuse("A/V packet when stream mode is '%s' not allowed\n", publisher.stream_mode.c_str());
    }
    if (publisher.stream_name.empty()) {
        return refuse("A/V packet without a stream name\n");
    }
    RelayedMessage message(pkt);
    if (message.kind != nullptr) {
        if (!lock_codec(publisher, *message.kind, pkt)) {
            return false;
        }
        if (message.is_sequence_header) {
            save_sequence_header(publisher, *message.kind, pkt);
        }
    }
    record.last_activity_us = monotonic_clock_us();
    if (record.publisher != publisher.conn_idx || record.players.empty()) {
        return true;
    }
    message.payload = SharedPayload::lay_out(pkt.chunk, chunk_size_of_most(record.players));
    std::vector<std::size_t> dead;
    for (const std::size_t player_idx : record.players) {
        RTMPConnection* const player = get_connection(player_idx);
        if (player == nullptr) {
            diag("BUG: Dead subscriber\n");
            dead.push_back(player_idx);
        } else if (!player->relay_from_publisher(message, publisher)) {
            diag("Relay fail\n");
        }
    }
    for (const std::size_t player_idx : dead) {
        stream_unsubscribe_for_play(publisher.stream_name, player_idx);
    }
    return true;
}

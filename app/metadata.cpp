#include "app/metadata.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "amf/amf_dump.h"
#include "app/command_args.h"
#include "app/reply.h"
#include "base/clock.h"
#include "base/diag.h"
#include "core/connection_table.h"
#include "core/limits.h"
#include "relay/stream_registry.h"
#include "rtmp/message_types.h"

namespace {

// intended: rounds half up, also for negative numbers, which are ignored later anyway.
double round_half_up(double number) {
    return std::floor(number + 0.5);
}

template <typename Integer>
Integer read_integer(const AMF_Value& value, Integer unknown) {
    if (value.type != AMF_Type::Number) {
        return unknown;
    }
    const double rounded = round_half_up(value.number);
    const bool fits = rounded >= static_cast<double>(std::numeric_limits<Integer>::min()) &&
                      rounded <= static_cast<double>(std::numeric_limits<Integer>::max());
    return fits ? static_cast<Integer>(rounded) : unknown;
}

constexpr std::uint32_t METADATA_CHUNK_STREAM_ID = 9;

StreamMetadata kept_metadata(const AMF_Value& value) ON_MAIN_THREAD {
    StreamMetadata kept;
    kept.type = value.type;
    kept.format = read_stream_format(value);
    const AMF_Value name = string_value("onMetaData");
    if (!is_stream_metadata(kept) || !encode_values({&name, &value}, kept.message)) {
        kept.message.release();
    }
    return kept;
}

// Keeps what is needed of the value, and forwards it unless another connection is the current publisher.
void accept_metadata(RTMPConnection& conn, const StreamRecord& record,
                     const AMF_Value& metadata) ON_MAIN_THREAD {
    diag("onMetaData submitted by client\n");
    AMF_DumpValue(metadata, DUMP_INDENT);
    conn.metadata = kept_metadata(metadata);
    if (record.publisher != NO_CONNECTION && record.publisher != conn.conn_idx) {
        diag("client is publisher but not current publisher, holding onMetaData for later\n");
        return;
    }
    update_format(conn.stream_format, conn.metadata.format);
    forward_metadata_to_players(conn);
}

// Whether the format is the one the player was told. If not, the player is dropped, since its decoder is set
// up for another format.
bool format_is_unchanged(RTMPConnection& player, const StreamFormat& format) ON_MAIN_THREAD {
    switch (tell_format(player.stream_format, format)) {
        case FormatChange::NONE:
            return true;
        case FormatChange::WIDTH:
            diag("width changed\n");
            break;
        case FormatChange::HEIGHT:
            diag("height changed\n");
            break;
        case FormatChange::AUDIO_CODEC:
            diag("audio fourcc changed\n");
            break;
        case FormatChange::VIDEO_CODEC:
            diag("video fourcc changed\n");
            break;
    }
    player.close_requested = true;
    return false;
}

}  // namespace

bool handle_data_message(RTMPConnection& conn, const RTMP_Packet& pkt) {
    if (conn.stream_name.empty()) {
        diag("AMF0 notify without a stream name\n");
        return true;
    }
    StreamRecord& record = find_or_insert_stream(conn.stream_name);
    record.last_activity_us = monotonic_clock_us();
    const RTMP_Packet::chunk_t::message_t& message = pkt.chunk.message;
    if (message.data_length == 0) {
        return true;
    }
    if (message.data == nullptr) {
        return false;
    }
    CommandArgs args(message.data, message.data + message.data_length);
    AMF_Value value;
    if (!args.read(value)) {
        return false;
    }
    if (value.string != "@setDataFrame") {
        diag("Unknown RTMP client notification: '%s'\n", value.string.c_str());
        return true;
    }
    if (!args.read(value)) {
        return false;
    }
    if (value.string != "onMetaData") {
        diag("Unexpected setDataFrame and '%s'\n", value.string.c_str());
        return true;
    }
    if (!args.read(value)) {
        return false;
    }
    if (conn.stream_mode != "publish") {
        diag("onMetaData ignored from client\n");
        return true;
    }
    accept_metadata(conn, record, value);
    return true;
}

void send_metadata(RTMPConnection& player, const StreamMetadata& metadata) {
    if (!format_is_unchanged(player, metadata.format) || metadata.message.data_length == 0) {
        return;
    }
    RTMP_Packet pkt;
    pkt.chunk.stream_id = METADATA_CHUNK_STREAM_ID;
    pkt.chunk.message_type_id = MESSAGE_AMF0_DATA;
    pkt.chunk.message_stream_id = player.stream_id;
    if (metadata.message.copy_to(pkt.chunk.message)) {
        player.connection_out.push_back(std::move(pkt));
    }
}

void forward_metadata_to_players(const RTMPConnection& publisher) {
    if (publisher.stream_name.empty() || !is_stream_metadata(publisher.metadata)) {
        return;
    }
    StreamRecord& record = find_or_insert_stream(publisher.stream_name);
    record.last_activity_us = monotonic_clock_us();
    for (const std::size_t player_idx : record.players) {
        RTMPConnection* const player = get_connection(player_idx);
        if (player == nullptr || player->stream_mode != "play") {
            continue;
        }
        const ConnectionLock lock(*player, OTHER_UNLOCK_EXPRESSION);
        if (lock.held()) {
            send_metadata(*player, publisher.metadata);
        }
    }
}

bool is_stream_metadata(const StreamMetadata& metadata) {
    return metadata.type == AMF_Type::Object || metadata.type == AMF_Type::ECMAArray;
}

StreamFormat read_stream_format(const AMF_Value& metadata) {
    return {
        .video_width = read_integer<std::int32_t>(metadata.find_member("width"), -1),
        .video_height = read_integer<std::int32_t>(metadata.find_member("height"), -1),
        .audio_codec_id = read_integer<std::uint32_t>(metadata.find_member("audiocodecid"), 0),
        .video_codec_id = read_integer<std::uint32_t>(metadata.find_member("videocodecid"), 0),
    };
}

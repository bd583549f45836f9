#include "bench/load_player.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "bench/stamped_media.h"
#include "tests/support/chunk_bytes.h"

namespace {

// A basic header of one byte and an 11-byte message header. A server's message always begins in this form if
// its chunk stream id is below 64, as for the publishers here.
constexpr std::size_t FIRST_HEADER_BYTES = 12;
constexpr std::size_t EXTENDED_TIMESTAMP_BYTES = 4;
constexpr std::size_t TIMESTAMP_OFFSET = 1;
constexpr std::size_t LENGTH_OFFSET = 4;
constexpr std::size_t TYPE_OFFSET = 7;
constexpr int CONTINUATION_BITS = 0xC0;
// A frame further out of place counts as a duplicate.
constexpr std::uint32_t RECENT_FRAMES = 64;

}  // namespace

void FrameTally::merge(const FrameTally& other) {
    bytes += other.bytes;
    frames += other.frames;
    lost += other.lost;
    duplicated += other.duplicated;
    reordered += other.reordered;
    damaged += other.damaged;
    lateness.merge(other.lateness);
    first_pictures.merge(other.first_pictures);
}

LoadPlayer::LoadPlayer(RtmpClient handshaken_client, std::string_view stream_name, std::uint32_t chunk_bytes,
                       std::uint64_t begun_us)
    : client(std::move(handshaken_client)),
      wanted_chunk(chunk_bytes),
      header_missing(FIRST_HEADER_BYTES),
      begun(begun_us) {
    if (wanted_chunk != chunk) {
        client.set_chunk_size(wanted_chunk);
    }
    client.send_connect("ombrex-output");
    client.send_create_stream();
    client.send_play(stream_name);
}

bool LoadPlayer::receive(std::vector<char>& buffer, FrameTally& tally, Measure measure) {
    const ssize_t length = recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length <= 0) {
        return length < 0 && (errno == EAGAIN || errno == EINTR);
    }
    tally.bytes += static_cast<std::uint64_t>(length);
    take({buffer.data(), static_cast<std::size_t>(length)}, tally, measure);
    return true;
}

void LoadPlayer::take(std::string_view bytes, FrameTally& tally, Measure measure) {
    while (!bytes.empty()) {
        bytes = header_missing != 0 ? take_header(bytes, tally) : take_payload(bytes, tally, measure);
        if (header_missing == 0 && in_message && payload.empty()) {
            finish_message(tally, measure);
        }
    }
}

std::string_view LoadPlayer::take_header(std::string_view bytes, FrameTally& tally) {
    const std::size_t n = std::min(header_missing, bytes.size());
    (in_message ? continuation : header).append(bytes, 0, n);
    header_missing -= n;
    if (header_missing == 0) {
        if (in_message) {
            continue_message(tally);
        } else {
            begin_message(tally);
        }
    }
    return bytes.substr(n);
}

void LoadPlayer::begin_message(FrameTally& tally) {
    if (header.size() == FIRST_HEADER_BYTES && get_be24(header, TIMESTAMP_OFFSET) == EXTENDED_TIMESTAMP) {
        header_missing = EXTENDED_TIMESTAMP_BYTES;
        return;
    }
    tally.damaged += (header[0] & CONTINUATION_BITS) != 0 ? 1 : 0;
    payload.resize(get_be24(header, LENGTH_OFFSET));
    payload_done = 0;
    chunk_missing = std::min<std::size_t>(chunk, payload.size());
    in_message = true;
}

void LoadPlayer::continue_message(FrameTally& tally) {
    tally.damaged += continuation[0] != static_cast<char>(header[0] | CONTINUATION_BITS) ? 1 : 0;
    continuation.clear();
    chunk_missing = std::min<std::size_t>(chunk, payload.size() - payload_done);
}

std::string_view LoadPlayer::take_payload(std::string_view bytes, FrameTally& tally, Measure measure) {
    const std::size_t n = std::min(chunk_missing, bytes.size());
    std::memcpy(payload.data() + payload_done, bytes.data(), n);
    payload_done += n;
    chunk_missing -= n;
    if (payload_done == payload.size()) {
        finish_message(tally, measure);
    } else if (chunk_missing == 0) {
        header_missing = 1;
    }
    return bytes.substr(n);
}

void LoadPlayer::finish_message(FrameTally& tally, Measure measure) {
    const auto type = static_cast<std::uint8_t>(header[TYPE_OFFSET]);
    switch (type) {
        case MSG_SET_CHUNK_SIZE:
            chunk = wanted_chunk;
            break;
        case MSG_AUDIO:
        case MSG_VIDEO:
            check_media(type, tally, measure);
            break;
        case MSG_COMMAND:
            ++replies;
            break;
        default:
            break;
    }
    header.clear();
    payload.clear();
    in_message = false;
    header_missing = FIRST_HEADER_BYTES;
}

void LoadPlayer::check_media(std::uint8_t type, FrameTally& tally, Measure measure) {
    bool& had_header = type == MSG_AUDIO ? had_audio_header : had_video_header;
    if (is_sequence_header(payload)) {
        had_header = true;
        return;
    }
    ++tally.frames;
    const std::optional<FrameStamp> stamp = read_stamp(type, payload);
    if (!stamp) {
        ++tally.damaged;
        ++unplaced;
        return;
    }
    tally.damaged += had_header ? 0 : 1;
    if (type == MSG_VIDEO && !had_picture) {
        had_picture = true;
        tally.first_pictures.add(now_us() - begun);
    }
    check_place(*stamp, tally);
    if (measure == Measure::LATENESS) {
        tally.lateness.add(now_us() - stamp->sent_us);
    }
}

void LoadPlayer::check_place(const FrameStamp& stamp, FrameTally& tally) {
    const std::uint32_t expected = next_sequence.value_or(stamp.sequence);
    if (stamp.sequence < expected) {
        check_earlier(expected - 1 - stamp.sequence, tally);
        return;
    }
    const std::uint32_t gap = stamp.sequence - expected;
    tally.lost += gap - std::min(gap, unplaced);
    unplaced = 0;
    recent = gap + 1 < RECENT_FRAMES ? recent << (gap + 1) | 1 : 1;
    next_sequence = stamp.sequence + 1;
    const std::uint32_t shift = header_timestamp() - stamp.media_ms;
    tally.damaged += timestamp_shift.value_or(shift) != shift ? 1 : 0;
    timestamp_shift = shift;
}

// Handles a frame this many places before the last one.
void LoadPlayer::check_earlier(std::uint32_t places, FrameTally& tally) {
    const std::uint64_t bit = places < RECENT_FRAMES ? 1ULL << places : 0;
    if (bit == 0 || (recent & bit) != 0) {
        ++tally.duplicated;
        return;
    }
    recent |= bit;
    ++tally.reordered;
    --tally.lost;
}

std::uint32_t LoadPlayer::header_timestamp() const {
    return header.size() == FIRST_HEADER_BYTES ? get_be24(header, TIMESTAMP_OFFSET)
                                               : get_be32(header, FIRST_HEADER_BYTES);
}

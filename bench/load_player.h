// A player of a load generator. A hundred of them can run on one thread, and each detects every lost, damaged
// or misplaced frame. It parses chunks as they arrive and keeps only as much of a message as it needs to
// check it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/lateness.h"
#include "bench/stamped_media.h"
#include "tests/support/rtmp_client.h"

// What players have received, and the errors they have found.
struct FrameTally {
    std::uint64_t bytes = 0;
    std::uint64_t frames = 0;
    // Frames missing in gaps. Negative in a tally that begins between a gap and the frame that fills it.
    std::int64_t lost = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;  // arrived after a later frame of the stream
    // Wrong bytes, timestamp or chunk header, or a frame before its decoder settings.
    std::uint64_t damaged = 0;
    Lateness lateness;
    // From the start of each player's connection to its first video frame.
    Lateness first_pictures;

    std::uint64_t faults() const { return duplicated + reordered + damaged; }
    void merge(const FrameTally& other);
};

enum class Measure { LATENESS, LOSS_ONLY };

class LoadPlayer {
  public:
    // Requests the chunk size, unless it is the default, and the stream; reads nothing yet. Only this class
    // reads from the client. begun_us is when the client began to connect, by now_us().
    LoadPlayer(RtmpClient handshaken_client, std::string_view stream_name, std::uint32_t chunk_bytes,
               std::uint64_t begun_us = now_us());

    int fd() const { return client.descriptor(); }
    // connect, createStream and play have been answered.
    bool is_playing() const { return replies >= 3; }
    // The number of the next frame. Empty before the first, which may be any frame of the stream.
    std::optional<std::uint32_t> next_frame() const { return next_sequence; }

    // Reads available bytes without waiting. False if the server has closed the connection.
    [[nodiscard]] bool receive(std::vector<char>& buffer, FrameTally& tally,
                               Measure measure = Measure::LATENESS);
    void close_with_reset() { client.close_with_reset(); }

  private:
    void take(std::string_view bytes, FrameTally& tally, Measure measure);
    std::string_view take_header(std::string_view bytes, FrameTally& tally);
    std::string_view take_payload(std::string_view bytes, FrameTally& tally, Measure measure);
    void begin_message(FrameTally& tally);
    void continue_message(FrameTally& tally);
    void finish_message(FrameTally& tally, Measure measure);
    void check_media(std::uint8_t type, FrameTally& tally, Measure measure);
    void check_place(const FrameStamp& stamp, FrameTally& tally);
    void check_earlier(std::uint32_t places, FrameTally& tally);
    std::uint32_t header_timestamp() const;

    RtmpClient client;
    std::uint32_t chunk = DEFAULT_CHUNK_SIZE;
    std::uint32_t wanted_chunk;
    int replies = 0;

    // The current message. If header_missing is 0, the header is complete and a chunk's payload follows.
    std::string header;        // of the first chunk
    std::string continuation;  // of a later chunk
    std::size_t header_missing;
    std::string payload;
    std::size_t payload_done = 0;
    std::size_t chunk_missing = 0;
    bool in_message = false;

    bool had_audio_header = false;
    bool had_video_header = false;
    bool had_picture = false;
    std::uint64_t begun;
    std::optional<std::uint32_t> next_sequence;
    // Bit i: frame next_sequence - 1 - i has arrived. Frames before the first count as arrived.
    std::uint64_t recent = ~0ULL;
    // Damaged frames since the last intact one. They belong to the gap before the next one.
    std::uint32_t unplaced = 0;
    // The player's timestamps minus the publisher's. Constant while it plays.
    std::optional<std::uint32_t> timestamp_shift;
};

// Picture size and codecs of a stream, as its metadata gives them, and what counts as a change under a player. Pure.
#pragma once

#include <cstdint>

struct StreamFormat {
    std::int32_t video_width = -1;     // below 1: unknown
    std::int32_t video_height = -1;    // below 1: unknown
    std::uint32_t audio_codec_id = 0;  // 0: unknown
    std::uint32_t video_codec_id = 0;  // 0: unknown
};

enum class FormatChange { NONE, WIDTH, HEIGHT, AUDIO_CODEC, VIDEO_CODEC };

// A publisher's own format: what update knows replaces what was known.
void update_format(StreamFormat& format, const StreamFormat& update);

// A player's reference: the first value of each field sticks. Fields are taken in the order width, height,
// audio, video; at the first one that differs from what the player was told, that change is returned and the
// fields behind it are neither compared nor recorded.
[[nodiscard]] FormatChange tell_format(StreamFormat& told, const StreamFormat& format);

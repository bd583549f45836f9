// The picture size and codecs of a stream as given by its metadata, and what counts as a change for
// a player. Pure.
#pragma once

#include <cstdint>

struct StreamFormat {
    std::int32_t video_width = -1;     // below 1: unknown
    std::int32_t video_height = -1;    // below 1: unknown
    std::uint32_t audio_codec_id = 0;  // 0: unknown
    std::uint32_t video_codec_id = 0;  // 0: unknown
};

enum class FormatChange { NONE, WIDTH, HEIGHT, AUDIO_CODEC, VIDEO_CODEC };

// For a publisher's own format: the known fields of update replace those of format.
void update_format(StreamFormat& format, const StreamFormat& update);

// For a player: records the first value of each field and compares later values with it, in the order width,
// height, audio, video. Returns the first change; the fields after it are neither compared nor recorded.
[[nodiscard]] FormatChange tell_format(StreamFormat& told, const StreamFormat& format);

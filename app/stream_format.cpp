#include "app/stream_format.h"

#include <cmath>
#include <limits>

#include "amf/amf_value.h"

namespace {

// intended: half up, also for negative numbers, which are ignored afterwards anyway.
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

// True when told already holds another value.
template <typename Integer>
bool differs_or_record(Integer& told, Integer value) {
    if (value < 1) {
        return false;
    }
    if (told < 1) {
        told = value;
    }
    return told != value;
}

}  // namespace

StreamFormat read_stream_format(const AMF_Value& metadata) {
    return {
        .video_width = read_integer<std::int32_t>(metadata.find_member("width"), -1),
        .video_height = read_integer<std::int32_t>(metadata.find_member("height"), -1),
        .audio_codec_id = read_integer<std::uint32_t>(metadata.find_member("audiocodecid"), 0),
        .video_codec_id = read_integer<std::uint32_t>(metadata.find_member("videocodecid"), 0),
    };
}

void update_format(StreamFormat& format, const StreamFormat& update) {
    if (update.video_width > 0) {
        format.video_width = update.video_width;
    }
    if (update.video_height > 0) {
        format.video_height = update.video_height;
    }
    if (update.audio_codec_id != 0) {
        format.audio_codec_id = update.audio_codec_id;
    }
    if (update.video_codec_id != 0) {
        format.video_codec_id = update.video_codec_id;
    }
}

FormatChange tell_format(StreamFormat& told, const StreamFormat& format) {
    if (differs_or_record(told.video_width, format.video_width)) {
        return FormatChange::WIDTH;
    }
    if (differs_or_record(told.video_height, format.video_height)) {
        return FormatChange::HEIGHT;
    }
    if (differs_or_record(told.audio_codec_id, format.audio_codec_id)) {
        return FormatChange::AUDIO_CODEC;
    }
    if (differs_or_record(told.video_codec_id, format.video_codec_id)) {
        return FormatChange::VIDEO_CODEC;
    }
    return FormatChange::NONE;
}

#include "relay/stream_format.h"

namespace {

// Records the first known value; later known values must equal it. Returns false if this one does not.
template <typename Integer>
bool agree_on_field(Integer& told, Integer value) {
    if (value < 1) {
        return true;
    }
    if (told < 1) {
        told = value;
    }
    return told == value;
}

}  // namespace

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
    if (!agree_on_field(told.video_width, format.video_width)) {
        return FormatChange::WIDTH;
    }
    if (!agree_on_field(told.video_height, format.video_height)) {
        return FormatChange::HEIGHT;
    }
    if (!agree_on_field(told.audio_codec_id, format.audio_codec_id)) {
        return FormatChange::AUDIO_CODEC;
    }
    if (!agree_on_field(told.video_codec_id, format.video_codec_id)) {
        return FormatChange::VIDEO_CODEC;
    }
    return FormatChange::NONE;
}

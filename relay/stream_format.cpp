#include "relay/stream_format.h"

namespace {

// Records a first value. Returns true if told already holds another one.
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

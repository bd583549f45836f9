#include "bench/frame_schedule.h"

#include <algorithm>

namespace {

constexpr std::size_t BYTES_PER_KBIT = 125;
constexpr std::size_t AUDIO_SAMPLES_PER_SECOND = 44100;
constexpr std::size_t SAMPLES_PER_AUDIO_FRAME = 1024;

std::uint32_t audio_due_ms(std::uint32_t frame) {
    return static_cast<std::uint32_t>(std::uint64_t{frame} * SAMPLES_PER_AUDIO_FRAME * 1000 /
                                      AUDIO_SAMPLES_PER_SECOND);
}

std::size_t inter_frame_bytes(const StreamShape& shape, std::size_t key_bytes) {
    const std::size_t all = shape.mean_frame_bytes * shape.frames_per_key_frame;
    const std::size_t others = std::max(shape.frames_per_key_frame, 2U) - 1;
    return all > key_bytes ? (all - key_bytes) / others : 1;
}

}  // namespace

void StreamShape::set_video_kbit(unsigned kbit_per_second) {
    mean_frame_bytes = kbit_per_second * BYTES_PER_KBIT / frames_per_second;
}

unsigned StreamShape::video_kbit() const {
    return static_cast<unsigned>((mean_frame_bytes * frames_per_second + BYTES_PER_KBIT / 2) /
                                 BYTES_PER_KBIT);
}

std::size_t StreamShape::largest_frame_bytes() const {
    return static_cast<std::size_t>(std::max(key_frame_in_means, 1.0) *
                                    static_cast<double>(mean_frame_bytes));
}

FrameSchedule::FrameSchedule(const StreamShape& stream_shape)
    : shape(stream_shape),
      key_bytes(
          static_cast<std::size_t>(shape.key_frame_in_means * static_cast<double>(shape.mean_frame_bytes))),
      inter_bytes(inter_frame_bytes(shape, key_bytes)),
      audio_bytes(shape.audio_kbit_per_second * BYTES_PER_KBIT * SAMPLES_PER_AUDIO_FRAME /
                  AUDIO_SAMPLES_PER_SECOND) {}

Frame FrameSchedule::next() {
    const std::uint32_t audio_ms = audio_due_ms(audio_frames);
    const auto video_ms =
        static_cast<std::uint32_t>(std::uint64_t{video_frames} * 1000 / shape.frames_per_second);
    if (shape.audio_kbit_per_second != 0 && audio_ms <= video_ms) {
        ++audio_frames;
        return {audio_ms, true, false, audio_bytes};
    }
    const bool is_key = video_frames++ % shape.frames_per_key_frame == 0;
    return {video_ms, false, is_key, is_key ? key_bytes : inter_bytes};
}

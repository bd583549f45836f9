// The schedule of one stream's frames: their times and kinds. Video frames come at a steady rate with a key
// frame at regular intervals. AAC-like audio frames come 43 times a second.
#pragma once

#include <cstddef>
#include <cstdint>

// The server refuses larger messages.
constexpr std::size_t MOST_FRAME_BYTES = 0xFFFFF;

struct StreamShape {
    unsigned frames_per_second = 30;
    std::size_t mean_frame_bytes = 16666;
    unsigned frames_per_key_frame = 60;
    // The size of a key frame as a multiple of the mean. The other frames shrink to keep the mean.
    double key_frame_in_means = 1;
    // 0 for a stream without audio.
    unsigned audio_kbit_per_second = 128;

    void set_video_kbit(unsigned kbit_per_second);
    unsigned video_kbit() const;
    std::size_t largest_frame_bytes() const;
    // The time from one key frame to the next.
    unsigned key_interval_ms() const { return 1000 * frames_per_key_frame / frames_per_second; }
};

struct Frame {
    std::uint32_t due_ms;
    bool is_audio;
    bool is_key;
    std::size_t size_bytes;
};

class FrameSchedule {
  public:
    explicit FrameSchedule(const StreamShape& stream_shape);
    // Returns frames in the order in which they are due. Audio precedes video of the same time.
    Frame next();

  private:
    StreamShape shape;
    std::size_t key_bytes;
    std::size_t inter_bytes;
    std::size_t audio_bytes;
    std::uint32_t audio_frames = 0;
    std::uint32_t video_frames = 0;
};

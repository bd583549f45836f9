// Publishers that send stamped audio and video in real time, all on one thread: H.264-like pictures at 30 a second
// with a large one every two seconds, AAC-like frames at 43 a second, decoder settings and metadata first.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/soak/journal.h"
#include "bench/soak/receiver.h"
#include "tests/support/rtmp_client.h"

std::string stream_name(std::size_t stream_idx);

// When the frames of a stream are due, and what they are.
class FrameSchedule {
  public:
    struct Frame {
        std::uint32_t due_ms;
        bool is_audio;
        bool is_key;
        std::size_t size_bytes;
    };
    explicit FrameSchedule(unsigned kbit_per_second);
    // Frames in the order in which they are due; of two at once the audio is first.
    Frame next();

  private:
    std::size_t inter_bytes;
    std::uint32_t audio_frames = 0;
    std::uint32_t video_frames = 0;
};

class Publishers {
  public:
    // Connects them all, then sends until stop(). Every skip_frame-th frame is numbered but not sent: a proof
    // that the rest notices; 0 for none.
    Publishers(std::size_t count, unsigned kbit_per_second, std::uint32_t skip_frame, Receiver& receiver,
               Journal& failures);
    ~Publishers() { stop(); }
    Publishers(const Publishers&) = delete;
    Publishers& operator=(const Publishers&) = delete;

    void stop();
    bool have_failed() const { return failed; }
    // Frames of each stream so far.
    std::vector<std::uint32_t> sent() const;
    // By how much the machine woke this thread up too late since the last call, at worst: its own share of what makes
    // frames late.
    double take_worst_oversleep_ms();

  private:
    struct Stream {
        Stream(std::size_t idx, unsigned kbit_per_second);

        RtmpClient client;
        FrameSchedule schedule;
        FrameSchedule::Frame next;
        std::atomic<std::uint32_t> sent{0};
    };

    void run();
    void wait_until(TimePoint due);
    void send_next(Stream& stream) const;

    Journal& journal;
    const std::uint32_t skip_every;
    std::vector<std::unique_ptr<Stream>> streams;
    std::atomic<std::uint64_t> worst_oversleep_us{0};
    std::atomic<bool> stop_requested{false};
    std::atomic<bool> failed{false};
    std::thread thread;
};

// Publishers that send stamped audio and video in real time, all on one thread: metadata and decoder settings
// first, then the frames of a schedule.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/frame_schedule.h"
#include "bench/journal.h"
#include "bench/receiver.h"
#include "tests/support/rtmp_client.h"

std::string stream_name(std::size_t stream_idx);

struct PublisherOptions {
    std::size_t count = 1;
    StreamShape shape = {};
    // The chunk sizes of the publishers, assigned in turn.
    std::vector<std::uint32_t> chunk_sizes = {DEFAULT_CHUNK_SIZE};
    // Each stream starts this long after the previous one.
    Milliseconds between_streams{0};
    // Every skip_frame-th frame is numbered but not sent, to prove that losses are detected. 0: none.
    std::uint32_t skip_frame = 0;
    ClientOptions client = {};
};

class Publishers {
  public:
    // Connects all publishers, then sends until stop().
    Publishers(const PublisherOptions& publisher_options, Receiver& receiver, Journal& failures);
    ~Publishers() { stop(); }
    Publishers(const Publishers&) = delete;
    Publishers& operator=(const Publishers&) = delete;

    void stop();
    bool have_failed() const { return failed; }
    // The frames of each stream sent so far.
    std::vector<std::uint32_t> sent() const;
    // The longest delay in waking this thread since the last call: the machine's own share of the lateness.
    double take_worst_oversleep_ms();
    // The longest delay of sending a frame since the last call.
    double take_worst_delay_ms();

  private:
    struct Stream {
        Stream(std::size_t idx, const PublisherOptions& options);

        RtmpClient client;
        FrameSchedule schedule;
        Frame next;
        std::atomic<std::uint32_t> sent{0};
    };

    void run();
    void wait_until(TimePoint due);
    void send_next(Stream& stream) const;

    Journal& journal;
    const PublisherOptions options;
    std::vector<std::unique_ptr<Stream>> streams;
    std::atomic<std::uint64_t> worst_oversleep_us{0};
    std::atomic<std::uint64_t> worst_delay_us{0};
    std::atomic<bool> stop_requested{false};
    std::atomic<bool> failed{false};
    std::thread thread;
};

// A publisher and a player of its stream, with media flowing in real time on their own threads while the test
// does something else to the server. At the end it reports whether the stream was disturbed.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"

struct LiveOptions {
    std::string stream_name = "live";
    Milliseconds interval{40};
    std::size_t message_bytes = 1000;
};

class LivePair {
  public:
    // Returns once the player has received the first messages.
    explicit LivePair(const LiveOptions& options = {});
    // Stops sending if finish() was not called.
    ~LivePair();
    LivePair(const LivePair&) = delete;
    LivePair& operator=(const LivePair&) = delete;

    // Stops sending and waits for messages in transit. Throws TestFailure unless every message arrived
    // intact, once and in order.
    void finish();
    // The longest time in which the player received nothing. Call after finish().
    Milliseconds longest_pause() const;
    // The longest time from when a message was due to be sent until the player had it. Call after finish().
    Milliseconds longest_delay() const;
    std::uint32_t messages_sent() const { return sent; }
    // Waits until the player has received this many more messages.
    void wait_for_more(std::size_t times) const;

  private:
    void send_all();
    TimePoint due(std::uint32_t message_idx) const { return first_due + options.interval * message_idx; }

    const LiveOptions options;
    // The player joins before the first message.
    RtmpClient player;
    RtmpClient publisher;
    MessageRecorder recorder;
    std::atomic<std::uint32_t> sent{0};
    std::atomic<bool> stop_requested{false};
    std::string sending_failure;
    const TimePoint first_due;
    std::thread sender;
};

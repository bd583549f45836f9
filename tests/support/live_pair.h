// A publisher and a player of its stream, with media flowing in real time on their own threads while the test
// does something else to the server. At the end it reports whether the stream was disturbed.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "tests/support/background.h"
#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"

struct LiveOptions {
    std::string stream_name = "live";
    Milliseconds interval{40};
    std::size_t message_bytes = 1000;
};

// 4 Mbit/s.
inline const LiveOptions PICTURES{.message_bytes = 20000};

// The latency of an undisturbed message: up to 10 ms until the main loop wakes up, and up to 50 ms until the
// player's writer does. Only time beyond this counts as late.
constexpr Milliseconds QUIET_LATENCY{60};

class LivePair {
  public:
    // Returns once the player has received the first messages.
    explicit LivePair(const LiveOptions& options = {});

    // Stops sending and waits for messages in transit. Throws TestFailure unless every message arrived
    // intact, once and in order.
    void finish();
    // The longest time from when a message was due to be sent until the player had it, less the time that an
    // undisturbed message takes. Call after finish().
    Milliseconds lateness() const;
    // The longest time in which the player received nothing. Call after finish().
    Milliseconds longest_pause() const;
    // Waits until the player has received this many more messages.
    void wait_for_more(std::size_t times) const { recorder.wait_for(recorder.messages().size() + times); }

  private:
    void send_one();
    TimePoint due(std::uint32_t message_idx) const { return first_due + options.interval * message_idx; }

    const LiveOptions options;
    // The player joins before the first message.
    RtmpClient player;
    RtmpClient publisher;
    MessageRecorder recorder;
    std::atomic<std::uint32_t> sent{0};
    const TimePoint first_due = SteadyClock::now();
    Background sender;
};

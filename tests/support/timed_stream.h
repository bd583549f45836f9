// A stream whose messages are timed from sending until the player has them, and work concurrent with it.
#pragma once

#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/time_limits.h"

// Runs a loop body on a thread until destroyed. An exception from the body is kept for the test.
class Background {
  public:
    template <typename Body>
    explicit Background(Body body) : thread([this, body] { run(body); }) {}
    ~Background() { stop(); }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    void stop() {
        stop_requested = true;
        if (thread.joinable()) {
            thread.join();
        }
    }
    // Call after stop().
    const std::string& failure() const { return failure_text; }

  private:
    template <typename Body>
    void run(const Body& body) {
        try {
            while (!stop_requested) {
                body();
            }
        } catch (const std::exception& error) {
            failure_text = error.what();
        }
    }

    std::atomic<bool> stop_requested{false};
    std::string failure_text;
    std::thread thread;
};

// A stream of 4 Mbit/s at 25 messages a second.
class TimedStream {
  public:
    explicit TimedStream(const std::string& name = "live");

    // Sends in real time on the calling thread, and returns the longest time a message took.
    Milliseconds run_for(Milliseconds duration);
    // The same until work, which runs on its own thread, has ended. Rethrows its exceptions.
    template <typename Work>
    Milliseconds run_beside(Work work);

  private:
    Milliseconds run_while(const std::function<bool()>& goes_on);
    Milliseconds longest_since(std::size_t first) const;

    RtmpClient player;
    RtmpClient publisher;
    MessageRecorder recorder;
    const TimePoint start = SteadyClock::now();
    std::vector<TimePoint> send_times;
};

template <typename Work>
Milliseconds TimedStream::run_beside(Work work) {
    std::atomic<bool> done{false};
    std::exception_ptr failure;
    std::thread worker([&] {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        done = true;
    });
    const auto join = [&worker] { worker.join(); };
    Milliseconds longest{0};
    try {
        longest = run_while([&done] { return !done; });
    } catch (...) {
        join();
        throw;
    }
    join();
    if (failure) {
        std::rethrow_exception(failure);
    }
    return longest;
}

// Returns the part of latency that exceeds that of an undisturbed message.
Milliseconds lateness(Milliseconds latency);

RtmpClient publisher_with_long_name(const std::string& name, const ClientOptions& options = {});
// Connects publishers concurrently. Their stream names are a number followed by this many bytes.
std::vector<RtmpClient> publishers_with_long_names(std::size_t count, std::size_t name_bytes);
std::string long_stream_name(std::size_t idx, std::size_t name_bytes);

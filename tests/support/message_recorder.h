// Reads everything a client receives on a thread of its own, so that arrival times are true while the test
// does something else (sends from the same client included).
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/rtmp_client.h"

class MessageRecorder {
  public:
    using Wanted = std::function<bool(const RtmpMessage&)>;

    // The client must outlive the recorder, and nobody else may read from it or close it meanwhile.
    // Acknowledgements are dropped unless keep_acknowledgements is set.
    explicit MessageRecorder(RtmpClient& client, bool keep_acknowledgements = false);
    // Stops reading; the client can be read directly again.
    ~MessageRecorder();
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    // A copy of what came so far, or of those messages that are wanted.
    std::vector<RtmpMessage> messages() const;
    std::vector<RtmpMessage> messages_of_type(std::uint8_t type) const;
    std::size_t count(const Wanted& wanted) const;
    // Waits until so many wanted messages came; throws TestFailure at the deadline, at a broken chunk stream,
    // or when the connection closed without them.
    void wait_for(std::size_t times, const Wanted& wanted, Milliseconds wait = DEFAULT_WAIT) const;
    void wait_for_type(std::size_t times, std::uint8_t type, Milliseconds wait = DEFAULT_WAIT) const;
    void wait_for_close(Milliseconds wait = DEFAULT_WAIT) const;
    bool closed() const;
    // Why the reading ended, empty while it goes on or after an orderly close.
    std::string error() const;
    void stop();

  private:
    void read_all();

    RtmpClient& client;
    const bool keep_acknowledgements;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<RtmpMessage> received;
    bool connection_closed = false;
    bool stop_requested = false;
    std::string problem;
    std::thread thread;
};

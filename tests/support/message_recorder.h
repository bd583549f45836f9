// Reads everything a client receives on its own thread, so that arrival times are correct while the test does
// something else, such as sending from the same client.
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

    // The client must outlive the recorder. No other code may read from it or close it meanwhile.
    // Acknowledgements are dropped unless keep_acknowledgements is set.
    explicit MessageRecorder(RtmpClient& client, bool keep_acknowledgements = false);
    // Stops reading. Then the client can be read directly again.
    ~MessageRecorder();
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    // Returns a copy of all messages so far, or of the wanted ones.
    std::vector<RtmpMessage> messages() const;
    std::vector<RtmpMessage> messages_of_type(std::uint8_t type) const;
    std::size_t count(const Wanted& wanted) const;
    // Waits until this many wanted messages have arrived. Throws TestFailure at the deadline, on a broken
    // chunk stream, or if the connection closes first.
    void wait_for(std::size_t times, const Wanted& wanted, Milliseconds wait = DEFAULT_WAIT) const;
    void wait_for_type(std::size_t times, std::uint8_t type, Milliseconds wait = DEFAULT_WAIT) const;
    void wait_for_close(Milliseconds wait = DEFAULT_WAIT) const;
    bool closed() const;
    // Returns why reading ended. Empty while it continues and after an orderly close.
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

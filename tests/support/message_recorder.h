// Reads everything a client receives on its own thread, so that arrival times are correct while the test does
// something else, such as sending from the same client.
#pragma once

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/rtmp_client.h"

class MessageRecorder {
  public:
    // The client must outlive the recorder. No other code may read from it or close it until the recorder
    // stops or is destroyed.
    explicit MessageRecorder(RtmpClient& client);
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    // Returns a copy of all messages so far, without acknowledgements.
    std::vector<RtmpMessage> messages() const;
    // Waits until this many messages have arrived. Throws TestFailure at the deadline, on a broken chunk
    // stream, or if the connection closes first.
    void wait_for(std::size_t times, Milliseconds wait = DEFAULT_WAIT) const;
    // Returns why reading ended. Empty if it did not end before stop().
    std::string end() const;
    void stop();

  private:
    void read_all(const std::stop_token& stop_requested);

    RtmpClient& client;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    // Guarded by the mutex.
    std::vector<RtmpMessage> received;
    std::string reason_of_end;
    std::jthread thread;
};

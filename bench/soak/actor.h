// Repeats a step on its own thread, concurrently with other actors. A failed step is recorded in the journal
// and does not prevent the next one.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "bench/journal.h"
#include "tests/support/time_limits.h"

class Actor {
  public:
    // On the actor's thread, the step may wait with rest().
    Actor(std::string actor_name, Milliseconds pause_between, Journal& failures,
          std::function<void(Actor&)> actor_step);
    ~Actor() { stop(); }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    // Waits for this time. Returns false at once if the actor is to stop.
    bool rest(Milliseconds time);
    // Ends rest() and waits for the step to end.
    void stop();

  private:
    std::mutex mutex;
    std::condition_variable stop_asked;
    bool stop_requested = false;
    std::thread thread;
};

// Somebody who does the same thing again and again beside the others, on a thread of its own. A step that
// fails is kept in the journal, and the next one comes all the same.
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
    // The step may wait with rest(), on the actor's thread.
    Actor(std::string actor_name, Milliseconds pause_between, Journal& failures,
          std::function<void(Actor&)> actor_step);
    ~Actor() { stop(); }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    // Waits so long; false, and at once, when the actor is to stop.
    bool rest(Milliseconds time);
    // Ends rest() and lets the step come to its end.
    void stop();

  private:
    std::mutex mutex;
    std::condition_variable stop_asked;
    bool stop_requested = false;
    std::thread thread;
};

#include "bench/soak/actor.h"

#include <utility>

Actor::Actor(std::string actor_name, Milliseconds pause_between, Journal& failures,
             std::function<void(Actor&)> actor_step) {
    thread = std::thread(
        [this, name = std::move(actor_name), pause_between, &failures, step = std::move(actor_step)] {
            do {
                failures.attempt(name, [&] { step(*this); });
            } while (rest(pause_between));
        });
}

bool Actor::rest(Milliseconds time) {
    std::unique_lock lock(mutex);
    return !stop_asked.wait_for(lock, time, [this] { return stop_requested; });
}

void Actor::stop() {
    {
        const std::lock_guard guard(mutex);
        stop_requested = true;
    }
    stop_asked.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

// A player that stops reading, so that its stream queues up in the server. Then it leaves, is dropped with
// the tool, or reads on and must find every frame in order.
#pragma once

#include <string>

#include "bench/journal.h"
#include "bench/receiver.h"
#include "bench/soak/actor.h"

class StalledPlayer {
  public:
    StalledPlayer(std::size_t stream_count, Milliseconds stall_time, Receiver& receiver, Journal& events)
        : streams(stream_count), stall(stall_time), readers(receiver), journal(events) {}
    void step(Actor& self);

  private:
    void note_full_socket(Actor& self, const std::string& address) const;
    void catch_up(Actor& self, LoadPlayer player, std::size_t stream_idx);

    const std::size_t streams;
    const Milliseconds stall;
    Receiver& readers;
    Journal& journal;
    std::size_t steps = 0;
};

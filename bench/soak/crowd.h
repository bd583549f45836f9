// The well-behaved players: some stay for the whole soak, the others come and go all the time.
#pragma once

#include <deque>
#include <vector>

#include "bench/soak/journal.h"
#include "bench/soak/receiver.h"
#include "tests/support/time_limits.h"

class Crowd {
  public:
    // They join the streams in turn.
    Crowd(std::size_t stream_count, Receiver& receiver, Journal& events);

    void join_to_stay() { stay.push_back(join()); }
    void join_for_a_while() { come_and_go.push_back({join(), SteadyClock::now()}); }
    // The one that came first of those who come and go leaves: by turns in good order and by a reset.
    void let_one_leave();
    // Who stayed has to have received frames, too.
    void let_all_leave();

  private:
    struct Visit {
        Receiver::Id id;
        TimePoint since;
    };

    Receiver::Id join();
    void leave(Receiver::Id id, Receiver::Leave how, bool must_have_received);

    const std::size_t streams;
    Receiver& readers;
    Journal& journal;
    std::size_t joined = 0;
    std::size_t left = 0;
    std::vector<Receiver::Id> stay;
    std::deque<Visit> come_and_go;
};

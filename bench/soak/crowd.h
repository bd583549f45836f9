// The well-behaved players: some stay for the whole soak, the others come and go all the time.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "bench/journal.h"
#include "bench/receiver.h"
#include "tests/support/time_limits.h"

class Crowd {
  public:
    // They join the streams in turn.
    Crowd(std::size_t stream_count, Receiver& receiver, Journal& events);

    void join_to_stay() { stay.push_back(join()); }
    void join_for_a_while() { come_and_go.push_back(join()); }
    // The one that came first of those who come and go leaves: by turns in good order and by a reset. When it
    // has been there for long enough, it must have kept up with what has been sent of its stream so far.
    void let_one_leave(const std::vector<std::uint32_t>& sent);
    void let_all_leave(const std::vector<std::uint32_t>& sent);

  private:
    struct Visit {
        Receiver::Id id;
        std::size_t stream_idx;
        TimePoint since;
    };

    Visit join();
    void leave(const Visit& visit, Receiver::Leave how, const std::vector<std::uint32_t>& sent);

    const std::size_t streams;
    Receiver& readers;
    Journal& journal;
    std::size_t joined = 0;
    std::size_t left = 0;
    std::vector<Visit> stay;
    std::deque<Visit> come_and_go;
};

// The well-behaved players. Some stay for the whole soak, the others come and go.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "bench/journal.h"
#include "bench/receiver.h"
#include "tests/support/time_limits.h"

class Crowd {
  public:
    // Players join the streams in turn.
    Crowd(std::size_t stream_count, Receiver& receiver, Journal& events);

    void join_to_stay() { stay.push_back(join()); }
    void join_for_a_while() { come_and_go.push_back(join()); }
    // Makes the oldest visiting player leave, alternately by an orderly close and by a reset. If it has
    // stayed long enough, it must have kept up with what was sent of its stream.
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

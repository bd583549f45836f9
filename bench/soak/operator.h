// Somebody with the control tool: lists the connections, and drops some that have joined for just that.
#pragma once

#include "bench/journal.h"

struct OperatorOrders {
    std::size_t publishers;
    std::size_t players;  // who stay
};

// One step: a list, which must show the publishers and the players, then a drop of one player of a stream by
// its id, or by turns of all that wait for a stream by its name.
class Operator {
  public:
    Operator(const OperatorOrders& operator_orders, Journal& events)
        : orders(operator_orders), journal(events) {}
    void step();

  private:
    void check_list() const;
    void drop_a_player();
    void drop_a_stream();

    const OperatorOrders orders;
    Journal& journal;
    std::size_t steps = 0;
};

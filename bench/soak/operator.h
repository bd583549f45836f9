// An operator with the control tool. Lists the connections, and drops some that joined for this purpose.
#pragma once

#include "bench/journal.h"

struct OperatorOrders {
    std::size_t publishers;
    std::size_t players;  // players that stay
};

// A step takes a list, which must show the publishers and the players. Then it drops, by turns, one player of
// a stream by its id or all players waiting for a stream by its name.
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

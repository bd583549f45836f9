// Another machine: a network namespace connected to the test's own by a pair of interfaces. It can be cut off
// without either side being notified.
#pragma once

#include <string>

#include "tests/support/rtmp_client.h"

class FarSide {
  public:
    FarSide();
    ~FarSide();
    FarSide(const FarSide&) = delete;
    FarSide& operator=(const FarSide&) = delete;

    // Returns a player that connects from there, from 192.0.2.2.
    RtmpClient player(const std::string& stream_name, ClientOptions options = {}) const;

    void cut_link() const;

  private:
    const int net;
};

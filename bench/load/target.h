// What is loaded: a server of our own, one that runs already, or the process that stands in for it.
#pragma once

#include <sys/types.h>

#include <optional>

#include "bench/load/options.h"
#include "bench/load/stand_in.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

class Target {
  public:
    // Starts it, unless it runs already. To be created before the process has threads.
    explicit Target(const LoadOptions& load);

    ClientOptions client_options() const;
    // 0 when it is not known.
    pid_t pid() const;
    const FloorSender* floor() const { return floor_sender ? &*floor_sender : nullptr; }
    // Requires that a server of our own ends in good order.
    void stop();

  private:
    ClientOptions options;
    pid_t given_pid;
    std::optional<ServerProcess> server;
    std::optional<FloorSender> floor_sender;
    std::optional<Sleepers> sleepers;
};

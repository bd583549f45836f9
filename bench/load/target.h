// The target of the load: a server started for it, a running server, or a process that stands in for one.
#pragma once

#include <sys/types.h>

#include <optional>

#include "bench/load/options.h"
#include "bench/load/stand_in.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

class Target {
  public:
    // Starts the target unless it is already running. Create it before the process has threads.
    explicit Target(const LoadOptions& load);

    ClientOptions client_options() const;
    // 0 if unknown.
    pid_t pid() const;
    const FloorSender* floor() const { return floor_sender ? &*floor_sender : nullptr; }
    // Stops a server started by this object and requires that it exits cleanly.
    void stop();

  private:
    ClientOptions options;
    pid_t given_pid;
    std::optional<ServerProcess> server;
    std::optional<FloorSender> floor_sender;
    std::optional<Sleepers> sleepers;
};

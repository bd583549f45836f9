// Processes that are measured in the server's place, for what no server can do without: sending the bytes,
// and waking up to look for work. Create them before the process has threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "bench/load/options.h"

// A child process that runs a function and reports once through a pipe. It is killed by the destructor.
class StandIn {
  public:
    explicit StandIn(const std::function<void(int report_fd)>& body);
    ~StandIn();
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    pid_t pid() const { return child; }

  protected:
    // Waits for the report; false when the child has ended without it.
    [[nodiscard]] bool read_report(void* report, std::size_t size_bytes) const;

  private:
    pid_t child = -1;
    int report_fd = -1;
};

// The bare fan-out: takes as many players as the load has, then sends them the frames of one stream in real
// time, each message with one send to each player, on blocking sockets with TCP_NODELAY. The messages are
// laid out before.
class FloorSender : public StandIn {
  public:
    struct Counts {
        std::uint64_t messages = 0;
        std::uint32_t frames = 0;
        std::uint64_t sends = 0;
    };
    explicit FloorSender(const LoadOptions& load);
    // Waits until it has sent everything. Throws TestFailure when it has failed, or has not made exactly as
    // many sends as there are messages for all players.
    Counts finish() const;

  private:
    FloorSender(const LoadOptions& load, int listener);
    unsigned players;
};

// As many threads as the load has players, that sleep 50 ms again and again, and a main thread that sleeps
// 10 ms.
class Sleepers : public StandIn {
  public:
    explicit Sleepers(const LoadOptions& load);
};

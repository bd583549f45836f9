// Processes measured in place of the server, for the costs that every server has: sending the bytes and
// waking up to look for work. Create them before the process has threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "bench/load/options.h"

// A child process that runs a function and reports once through a pipe. The destructor kills it.
class StandIn {
  public:
    explicit StandIn(const std::function<void(int report_fd)>& body);
    ~StandIn();
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    pid_t pid() const { return child; }

  protected:
    // Waits for the report. False if the child ended without one.
    [[nodiscard]] bool read_report(void* report, std::size_t size_bytes) const;

  private:
    pid_t child = -1;
    int report_fd = -1;
};

// The bare fan-out. Accepts the load's players, then sends them the frames of one stream in real time, with
// one send per message and player, on blocking sockets with TCP_NODELAY. The messages are encoded in advance.
class FloorSender : public StandIn {
  public:
    struct Counts {
        std::uint64_t messages = 0;
        std::uint32_t frames = 0;
        std::uint64_t sends = 0;
    };
    explicit FloorSender(const LoadOptions& load);
    // Waits until it has sent everything. Throws TestFailure if it failed, or if the number of sends is not
    // the number of messages times players.
    Counts finish() const;

  private:
    FloorSender(const LoadOptions& load, int listener);
    unsigned players;
};

// One thread per player of the load, which repeatedly sleeps 50 ms, and a main thread that repeatedly sleeps
// 10 ms.
class Sleepers : public StandIn {
  public:
    explicit Sleepers(const LoadOptions& load);
};

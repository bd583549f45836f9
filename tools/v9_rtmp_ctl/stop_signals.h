// The signals that end a long-running command: SIGINT, SIGTERM and SIGHUP. While a StopSignals exists, it
// reports them and they do not end the process.
#pragma once

#include <signal.h>

#include <cstdint>

class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Waits until a moment of clock_us(). True if a signal has arrived, during the wait or before.
    [[nodiscard]] bool wait_until(std::uint64_t moment_us);

    // The previous signal mask, for child processes.
    [[nodiscard]] const sigset_t& mask_before() const { return usual_mask; }

  private:
    const int fd;
    sigset_t usual_mask;
    bool has_come = false;
};

// The signals that end a long-running command: SIGINT, SIGTERM and SIGHUP. While a StopSignals exists, it
// reports them and they do not end the process. A signal that was ignored before stays ignored.
#pragma once

#include <signal.h>

#include <cstdint>

class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Waits until clock_us() reaches moment_us or a signal arrives. True if one has arrived, now or earlier.
    [[nodiscard]] bool wait_until(std::uint64_t moment_us);

    // The previous signal mask, for child processes.
    [[nodiscard]] const sigset_t& mask_before() const { return usual_mask; }

  private:
    const int fd;
    sigset_t usual_mask;
    bool has_come = false;
};

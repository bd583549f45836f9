// The signals that end a command which otherwise goes on: SIGINT, SIGTERM and SIGHUP. While one of these
// exists, they are told here and do not end the process.
#pragma once

#include <signal.h>

#include <cstdint>

class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Waits until a moment of clock_us(). True when a signal has come, also one that came before.
    [[nodiscard]] bool wait_until(std::uint64_t moment_us);

    // What was the mask of signals before; for programs that are started meanwhile.
    [[nodiscard]] const sigset_t& mask_before() const { return usual_mask; }

  private:
    const int fd;
    sigset_t usual_mask;
    bool has_come = false;
};

// In a long-running command, reports a failure once and not at each attempt; by default, also once that the
// server answers again.
#pragma once

#include <optional>
#include <string>

#include "tools/v9_rtmp_ctl/failure.h"

class Trouble {
  public:
    // If is_quiet, does not report that the server answers again.
    explicit Trouble(bool is_quiet) : quiet(is_quiet) {}

    // Reports the failure unless it was the last one reported.
    void tell(const Failure& failure);
    void tell_end();
    // Calls tell() for a failure, and tell_end() if there was none.
    void take_in(const std::optional<Failure>& failure);

  private:
    const bool quiet;
    std::string last;  // empty after a success
};

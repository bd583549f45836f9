// In a long-running command, reports once that the server does not answer, and once that it answers again.
#pragma once

#include <string>

#include "tools/v9_rtmp_ctl/failure.h"

class Trouble {
  public:
    // If is_quiet, does not report that the server answers again.
    explicit Trouble(bool is_quiet) : quiet(is_quiet) {}

    // Reports the failure unless it was the last one reported.
    void tell(const Failure& failure);
    void tell_end();

  private:
    const bool quiet;
    std::string last;  // empty while the server answers
};

// A server that does not answer, as a command that goes on reports it: once, and again when it answers.
#pragma once

#include <string>

#include "tools/v9_rtmp_ctl/failure.h"

class Trouble {
  public:
    // Quiet: that the server answers again is not told.
    explicit Trouble(bool is_quiet) : quiet(is_quiet) {}

    // Reports it unless it was the last one that was told.
    void tell(const Failure& failure);
    void tell_end();

  private:
    const bool quiet;
    std::string last;  // empty while the server answers
};

// Reports in a long-running command that the server does not answer: once, and again when it answers.
#pragma once

#include <string>

#include "tools/v9_rtmp_ctl/failure.h"

class Trouble {
  public:
    // A quiet one does not report that the server answers again.
    explicit Trouble(bool is_quiet) : quiet(is_quiet) {}

    // Reports the failure unless it was the last one reported.
    void tell(const Failure& failure);
    void tell_end();

  private:
    const bool quiet;
    std::string last;  // empty while the server answers
};

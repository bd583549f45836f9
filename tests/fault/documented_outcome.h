// What must become of the scripted session when one call has failed: which texts the server prints and how often, who
// is dropped, who misses what, and that nobody else notices anything.
#pragma once

#include "tests/fault/faulty_server.h"
#include "tests/fault/scripted_session.h"

#include <string>

struct Verdict {
    std::string outcome;  // the outcome that the failed call must have, in a few words
    std::string problem;  // how the session differs from it; empty: it does not
};

// text: all that the server printed.
Verdict judge(FaultCall call, const std::string& action, const FaultWatch& watch, const SessionStory& story,
              const std::string& text);

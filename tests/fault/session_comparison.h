// A session that was played against what must have become of it.
#pragma once

#include <string>

#include "tests/fault/documented_outcome.h"
#include "tests/fault/scripted_session.h"

// How they differ, a line each; empty when they do not. text: all that the server printed. Whoever the
// outcome does not name must have been served to the end, and nothing else that tells of trouble may have
// been printed.
std::string differences(const DocumentedOutcome& expected, const SessionStory& story,
                        const std::string& text);

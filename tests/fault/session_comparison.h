// Compares a played session with its required outcome.
#pragma once

#include <string>

#include "tests/fault/documented_outcome.h"
#include "tests/fault/scripted_session.h"

// Returns the differences, one per line; empty if there are none. text is everything the server printed.
// All clients not named in the outcome must have been served to the end, and no other error may have
// been printed.
std::string differences(const DocumentedOutcome& expected, const SessionStory& story,
                        const std::string& text);

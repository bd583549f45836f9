// The server's diagnostics, linked in place of the real ones: every line is formatted, as an argument that
// does not fit its format is a finding, and only the last one is kept.
#pragma once

#include <string_view>

// What was printed last, cut to its first bytes; empty before anything was.
std::string_view last_diagnostic();
void forget_diagnostics();

// Called before each line is printed, unless null. At the real print a thread may be cancelled.
extern void (*before_diagnostic)();

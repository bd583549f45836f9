// The server's diagnostics, linked in place of the real ones: every line is formatted, so that an argument
// that does not match its format is found, and only the last line is kept.
#pragma once

#include <string_view>

// Returns the first bytes of the last line; empty if none was printed.
std::string_view last_diagnostic();
void forget_diagnostics();

// Called before each line is printed, unless null. A thread may be cancelled at the real print.
extern void (*before_diagnostic)();

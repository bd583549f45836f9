// The command line. Main thread, before anything else runs.
#pragma once

// Sets the switches that argv names. False when the process is to end with status 1: after the usage text, or
// after one line about the first argument that is not understood.
[[nodiscard]] bool parse_options(int argc, const char* const* argv);

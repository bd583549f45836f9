// Parses the command line. Main thread, before any other thread exists.
#pragma once

// Sets the switches named in argv. Returns false if the process must exit with status 1, after printing the
// usage text or one line about the first unknown argument.
[[nodiscard]] bool parse_options(int argc, const char* const* argv);

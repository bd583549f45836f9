// Refuses a command: prints one line to standard error; the connection is then dropped.
#pragma once

// Prints a complete line. Always returns false.
[[nodiscard]] bool refuse(const char* text);

// Refuses a stream name. intended: publish prints the same line as play.
[[nodiscard]] bool refuse_stream_name();

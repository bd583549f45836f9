// How a command is refused: one line on standard error, and the connection is dropped.
#pragma once

// Prints a finished line; always false.
[[nodiscard]] bool refuse(const char* text);

// The refusal of a stream name. intended: publish has it in play's words.
[[nodiscard]] bool refuse_stream_name();

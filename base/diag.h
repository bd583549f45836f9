// The server's diagnostics: lines on standard error, and one kind of line on standard output.
//
// 1. A call is one write(2), unless the descriptor accepts only part of it, so lines from different threads
//    do not mix.
// 2. No stdio lock is held. A thread that is cancelled while a full pipe blocks its write leaves nothing
//    locked, and no other thread waits for it.
// 3. Every call is a cancellation point. On a connection's own threads, never call these functions while
//    holding the connection's lock. Never call them from a destructor.
// 4. Data from clients is passed only as an argument, never as the format.
#pragma once

#include <string_view>

// Formats like printf and writes to standard error. The text must include its newline.
[[gnu::format(printf, 1, 2)]] void diag(const char* format, ...);

// Like diag, but always returns false, so a refusal is one statement: `return refuse("...\n");`.
[[nodiscard, gnu::format(printf, 1, 2)]] bool refuse(const char* format, ...);

// Writes already formatted text (a dump) to standard error.
void diag_block(std::string_view text);

// Like diag, but writes to standard output. Not buffered.
[[gnu::format(printf, 1, 2)]] void diag_stdout(const char* format, ...);

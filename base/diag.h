// What the server says: lines on standard error, and one line on standard output.
//
// 1. A call is one write(2) unless the descriptor takes less at a time, so lines of several threads do not
// mix.
// 2. No stdio lock is held: a thread that is cancelled while a full pipe blocks its write leaves nothing
//    locked, and no other thread waits for it.
// 3. Every call is a cancellation point. Never call one under a connection's lock on that connection's own
//    threads, and never from a destructor.
// 4. What clients sent is only ever passed as an argument, never as the format.
#pragma once

#include <string_view>

// Formats like printf and writes to standard error. The text carries its own line end.
[[gnu::format(printf, 1, 2)]] void diag(const char* format, ...);

// Writes a finished block (a dump) to standard error.
void diag_block(std::string_view text);

// Like diag, to standard output; written at once, never buffered.
[[gnu::format(printf, 1, 2)]] void diag_stdout(const char* format, ...);

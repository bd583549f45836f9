// A fake system for a program that runs the server's code millions of times. Messages go into a string,
// threads and sockets are faked, and random numbers are supplied. Linked in place of base/diag and rand(),
// and with --wrap for pthread_create, pthread_cancel, pthread_join and close.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// All text for standard error, in order: messages, and dumps of values and packets.
extern std::string printed_text;
extern std::string printed_dumps;

// The source of rand().
extern std::function<std::uint32_t()> random_source;

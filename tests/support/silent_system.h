// What the server asks of the system, for a program that runs it a million times over: its text goes into a
// string, its threads and sockets are only pretended, its random numbers are given. Linked in place of
// base/diag and rand(), and with --wrap for pthread_create, pthread_cancel, pthread_join and close.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Everything printed on standard error, in order.
extern std::string printed_text;

// Where rand() takes its numbers.
extern std::function<std::uint32_t()> random_source;

// Shows in which system call each thread of a server waits, from the kernel.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

// Returns the number of threads by system call: "recv", "send", "write to the log", "sleep",
// "lock", "elsewhere".
std::map<std::string, std::size_t> thread_places(pid_t pid);

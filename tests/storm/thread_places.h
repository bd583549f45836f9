// Where the threads of a server are: in which system call each waits, as the kernel shows it.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

// System call and number of threads: "recv", "send", "write to the log", "sleep", "lock", "elsewhere".
std::map<std::string, std::size_t> thread_places(pid_t pid);

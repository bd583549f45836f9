#include "tests/storm/thread_places.h"

#include <sys/syscall.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

std::string place_of(long call, const std::string& first_argument) {
    switch (call) {
        case SYS_recvfrom:
            return "recv";
        case SYS_sendto:
        case SYS_sendmsg:
            return "send";
        case SYS_write:
            return first_argument == "0x2" ? "write to the log" : "elsewhere";
        case SYS_clock_nanosleep:
            return "sleep";
        case SYS_futex:
            return "lock";
        default:
            return "elsewhere";
    }
}

}  // namespace

std::map<std::string, std::size_t> thread_places(pid_t pid) {
    std::map<std::string, std::size_t> places;
    std::error_code error;
    // Threads may start and end meanwhile.
    for (std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/task", error), last;
         !error && it != last; it.increment(error)) {
        std::ifstream file(it->path() / "syscall");
        long call = -1;
        std::string first_argument;
        if (file >> call >> first_argument) {
            ++places[place_of(call, first_argument)];
        }
    }
    return places;
}

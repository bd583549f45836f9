#include <sys/syscall.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

std::string ServerProcess::status_field(const std::string& field) const {
    std::ifstream file("/proc/" + std::to_string(pid()) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(field)) {
            return line.substr(line.find_first_not_of(" \t", field.size()));
        }
    }
    throw TestFailure("the server has no " + field + " any more");
}

std::size_t ServerProcess::thread_count() const {
    return std::stoul(status_field("Threads:"));
}

void ServerProcess::wait_for_thread_count(std::size_t count, Milliseconds wait) const {
    if (!holds_within(wait, [&] { return thread_count() == count; })) {
        throw TestFailure("the server has " + std::to_string(thread_count()) + " threads, not " +
                          std::to_string(count));
    }
}

std::size_t ServerProcess::fd_count() const {
    const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(pid()) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

void ServerProcess::wait_for_fd_count(std::size_t count, Milliseconds wait) const {
    if (!holds_within(wait, [&] { return fd_count() == count; })) {
        throw TestFailure("the server has " + std::to_string(fd_count()) + " descriptors, not " +
                          std::to_string(count));
    }
}

std::size_t ServerProcess::rss_kib() const {
    return std::stoul(status_field("VmRSS:"));
}

std::size_t ServerProcess::rss_kib_at_rest() const {
    constexpr Milliseconds GIVE_BACK_WAIT{11000};
    std::this_thread::sleep_for(GIVE_BACK_WAIT);
    return rss_kib();
}

Milliseconds ServerProcess::cpu_time() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(pid(), &clock) != 0 || clock_gettime(clock, &time) != 0) {
        throw TestFailure("the server has no processor time any more");
    }
    return Milliseconds{time.tv_sec * 1000 + time.tv_nsec / 1000000};
}

bool ServerProcess::main_thread_writes_to_stderr() const {
    std::ifstream file("/proc/" + std::to_string(pid()) + "/syscall");
    std::string call_and_arguments;
    std::getline(file, call_and_arguments);
    return call_and_arguments.starts_with(std::to_string(SYS_write) + " 0x2 ");
}

void ServerProcess::wait_until_signals_are_taken(Milliseconds wait) const {
    const auto none_is_pending = [this](const char* field) {
        return status_field(field).find_first_not_of('0') == std::string::npos;
    };
    if (!holds_within(wait, [&] { return none_is_pending("ShdPnd:") && none_is_pending("SigPnd:"); })) {
        throw TestFailure("the server does not take its signals");
    }
}

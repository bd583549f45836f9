#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

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
    std::error_code error;
    std::size_t count = 0;
    for (std::filesystem::directory_iterator it("/proc/" + std::to_string(pid()) + "/fd", error), last;
         !error && it != last; it.increment(error)) {
        ++count;
    }
    if (error) {
        throw TestFailure("reading the server's descriptors: " + error.message());
    }
    return count;
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
    std::ifstream file("/proc/" + std::to_string(pid()) + "/stat");
    std::stringstream text;
    text << file.rdbuf();
    // The name in parentheses may contain blanks. User and system time are fields 14 and 15.
    std::istringstream fields(text.str().substr(text.str().rfind(')') + 2));
    std::string skipped;
    for (int i = 3; i < 14; ++i) {
        fields >> skipped;
    }
    long user = 0;
    long system = 0;
    fields >> user >> system;
    if (!fields) {
        throw TestFailure("the server has no processor times any more");
    }
    return Milliseconds{(user + system) * 1000 / sysconf(_SC_CLK_TCK)};
}

bool ServerProcess::main_thread_writes_to_stderr() const {
    std::ifstream file("/proc/" + std::to_string(pid()) + "/syscall");
    long call = -1;
    std::string first_argument;
    file >> call >> first_argument;
    return call == SYS_write && first_argument == "0x2";
}

void ServerProcess::wait_until_signals_are_taken(Milliseconds wait) const {
    const auto none_is_pending = [this](const char* field) {
        return status_field(field).find_first_not_of('0') == std::string::npos;
    };
    if (!holds_within(wait, [&] { return none_is_pending("ShdPnd:") && none_is_pending("SigPnd:"); })) {
        throw TestFailure("the server does not take its signals");
    }
}

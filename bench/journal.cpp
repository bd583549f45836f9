#include "bench/journal.h"

#include <cstddef>
#include <cstdio>
#include <exception>

namespace {

constexpr std::size_t KEPT_FAILURES = 100;

}  // namespace

void Journal::count(const std::string& what) {
    const std::lock_guard guard(mutex);
    ++counters[what];
}

void Journal::fail(const std::string& what) {
    const std::lock_guard guard(mutex);
    ++failed;
    if (texts.size() < KEPT_FAILURES) {
        texts.push_back(what);
        std::fprintf(stderr, "FAILED: %s\n", what.c_str());
    }
}

bool Journal::attempt(const std::string& who, const std::function<void()>& step) {
    try {
        step();
        return true;
    } catch (const std::exception& error) {
        fail(who + ": " + error.what());
        return false;
    }
}

std::map<std::string, std::uint64_t> Journal::counts() const {
    const std::lock_guard guard(mutex);
    return counters;
}

std::vector<std::string> Journal::failures() const {
    const std::lock_guard guard(mutex);
    return texts;
}

std::uint64_t Journal::failure_count() const {
    const std::lock_guard guard(mutex);
    return failed;
}

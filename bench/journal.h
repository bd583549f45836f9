// What happened during a run: how often each client did its part, and what failed. Any thread may call it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class Journal {
  public:
    void count(const std::string& what);
    // Only the first failures are kept as text; all are counted.
    void fail(const std::string& what);
    // Runs the step of an actor; a failure in it is kept under the actor's name.
    bool attempt(const std::string& who, const std::function<void()>& step);

    std::map<std::string, std::uint64_t> counts() const;
    std::vector<std::string> failures() const;
    std::uint64_t failure_count() const;

  private:
    mutable std::mutex mutex;
    std::map<std::string, std::uint64_t> counters;
    std::vector<std::string> texts;
    std::uint64_t failed = 0;
};

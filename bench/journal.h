// A record of a run: how often each client did its part, and the failures. May be used by any thread.
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
    // Counts all failures; keeps the text of the first ones only.
    void fail(const std::string& what);
    // Runs a step of an actor. A failure is recorded under the actor's name.
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

// A histogram of lateness in steps of half a millisecond. Its size does not depend on the number of messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

class Lateness {
  public:
    void add(std::uint64_t late_us);
    void merge(const Lateness& other);

    std::uint64_t count() const { return messages; }
    // Returns the lateness that this share of messages did not exceed, rounded up to a step. 0
    // without messages.
    double percentile_ms(double share) const;
    double most_ms() const { return static_cast<double>(most_us) / 1000; }
    std::uint64_t later_than_ms(unsigned limit_ms) const;
    // Returns the upper end in milliseconds of each nonempty step, and its number of messages.
    std::vector<std::pair<double, std::uint64_t>> histogram() const;

  private:
    static constexpr std::uint64_t STEP_US = 500;
    // Messages later than 10 s are counted in the last step.
    static constexpr std::size_t STEPS = 20000;

    std::vector<std::uint32_t> steps;  // empty until the first message
    std::uint64_t messages = 0;
    std::uint64_t most_us = 0;
};

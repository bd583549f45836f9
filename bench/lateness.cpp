#include "bench/lateness.h"

#include <algorithm>
#include <cmath>

void Lateness::add(std::uint64_t late_us) {
    steps.resize(STEPS);
    ++steps[std::min<std::size_t>(late_us / STEP_US, STEPS - 1)];
    ++messages;
    most_us = std::max(most_us, late_us);
}

void Lateness::merge(const Lateness& other) {
    if (other.messages == 0) {
        return;
    }
    steps.resize(STEPS);
    for (std::size_t i = 0; i < STEPS; ++i) {
        steps[i] += other.steps[i];
    }
    messages += other.messages;
    most_us = std::max(most_us, other.most_us);
}

double Lateness::percentile_ms(double share) const {
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(messages)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        seen += steps[i];
        if (seen >= wanted && seen != 0) {
            const double step_ms = static_cast<double>((i + 1) * STEP_US) / 1000;
            return i + 1 == STEPS ? most_ms() : std::min(step_ms, most_ms());
        }
    }
    return 0;
}

std::uint64_t Lateness::later_than_ms(unsigned limit_ms) const {
    std::uint64_t later = 0;
    for (std::size_t i = std::size_t{limit_ms} * 1000 / STEP_US; i < steps.size(); ++i) {
        later += steps[i];
    }
    return later;
}

std::vector<std::pair<double, std::uint64_t>> Lateness::histogram() const {
    std::vector<std::pair<double, std::uint64_t>> counts;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (steps[i] != 0) {
            counts.emplace_back(static_cast<double>((i + 1) * STEP_US) / 1000, steps[i]);
        }
    }
    return counts;
}

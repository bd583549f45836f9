// Raises the rate of the streams until frames are lost, damaged or late, then looks for the limit between the
// last rate that held and the first that did not.
#include <cstdio>

#include "bench/load/runs.h"

namespace {

constexpr unsigned GROWTH_PERCENT = 150;
constexpr unsigned SEARCH_STEPS = 3;
// Anything slower is too late for every selectable limit but the largest.
constexpr double ARRIVAL_WAIT_SECONDS = 2;

bool holds(const nlohmann::json& report, unsigned late_ms) {
    return report["passed"].get<bool>() && report["lateness"]["p99_ms"] <= late_ms &&
           report["publisher_delay_ms"] <= late_ms;
}

class CapacityRun {
  public:
    explicit CapacityRun(const LoadOptions& options) : load(options) {}

    nlohmann::json run() {
        unsigned good = 0;
        unsigned kbit = load.shape.video_kbit();
        while (fits(kbit) && try_rate(kbit)) {
            good = kbit;
            kbit = kbit * GROWTH_PERCENT / 100;
        }
        unsigned bad = kbit;
        for (unsigned i = 0; i < SEARCH_STEPS; ++i) {
            const unsigned middle = good + (bad - good) / 2;
            (fits(middle) && try_rate(middle) ? good : bad) = middle;
        }
        nlohmann::json report = best;
        report["steps"] = steps;
        report["capacity"] = {{"video_kbit", good}, {"gb_per_second", 0}};
        if (good != 0) {
            report["capacity"]["gb_per_second"] =
                best["bytes"].get<double>() / 1e9 / best["seconds"].get<double>();
        } else {
            report["failures"] = {"not even the lowest rate held"};
        }
        report["passed"] = good != 0;
        return report;
    }

  private:
    // Whether the server accepts frames of the size that this rate needs.
    bool fits(unsigned kbit) const {
        StreamShape shape = load.shape;
        shape.set_video_kbit(kbit);
        return shape.largest_frame_bytes() <= MOST_FRAME_BYTES;
    }

    bool try_rate(unsigned kbit) {
        LoadOptions step = load;
        step.mode = Mode::RELAY;
        step.arrival_wait_seconds = ARRIVAL_WAIT_SECONDS;
        step.shape.set_video_kbit(kbit);
        nlohmann::json report;
        try {
            report = run_relay(step);
        } catch (const std::exception& error) {
            report = {{"passed", false}, {"failures", {error.what()}}};
        }
        const bool held = report["passed"].get<bool>() && holds(report, load.late_ms);
        std::fprintf(stderr, "%u kbit/s %s\n", kbit, held ? "holds" : "does not hold");
        steps.push_back(
            {{"video_kbit", kbit}, {"held", held}, {"bottleneck", report.value("bottleneck", "")}});
        if (held) {
            best = report;
        }
        return held;
    }

    const LoadOptions load;
    nlohmann::json steps = nlohmann::json::array();
    nlohmann::json best = nlohmann::json::object();
};

}  // namespace

nlohmann::json run_capacity(const LoadOptions& load) {
    return CapacityRun(load).run();
}

// Measures the cost of being idle: players that wait for a stream, or threads that only sleep.
#include <cmath>

#include "bench/journal.h"
#include "bench/load/report.h"
#include "bench/load/runs.h"
#include "bench/load/target.h"
#include "bench/receiver.h"

namespace {

// Memory is recorded each time this many connections were added.
constexpr unsigned MEMORY_STEP = 10;
constexpr Milliseconds SETTLE{500};

class IdleRun {
  public:
    explicit IdleRun(const LoadOptions& options) : load(options), target(options), receiver(journal) {}

    nlohmann::json run() {
        report["setup"] = setup_of(load);
        if (load.mode == Mode::IDLE) {
            say("players join");
            join_players();
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(load.warm_up_seconds));
        say("measuring");
        const Snapshot before = Snapshot::take(target.pid());
        std::this_thread::sleep_for(std::chrono::duration<double>(load.seconds));
        report.update(costs_between(before, Snapshot::take(target.pid())));
        receiver.stop();
        target.stop();
        report["failures"] = journal.failures();
        report["passed"] = journal.failure_count() == 0;
        return report;
    }

  private:
    void join_players() {
        const std::size_t empty = memory();
        nlohmann::json steps = {{0, empty}};
        for (unsigned i = 1; i <= load.all_players(); ++i) {
            receiver.add(LoadPlayer(handshaken_client(target.client_options()), "nothing_comes",
                                    load.player_chunk_bytes),
                         0);
            if (i % MEMORY_STEP == 0 || i == load.all_players()) {
                steps.push_back({i, memory()});
            }
        }
        // The last replies are still in transit.
        std::this_thread::sleep_for(SETTLE);
        const double rise = static_cast<double>(memory()) - static_cast<double>(empty);
        report["idle"] = {{"empty_kib", empty},
                          {"kib_each", rise / std::max(load.all_players(), 1U)},
                          {"memory_kib", steps}};
    }

    std::size_t memory() const { return target.pid() != 0 ? resident_kib(target.pid()) : 0; }

    const LoadOptions load;
    nlohmann::json report;
    Target target;
    Journal journal;
    Receiver receiver;
};

}  // namespace

nlohmann::json run_idle(const LoadOptions& load) {
    return IdleRun(load).run();
}

// Publishers and players join, get their first picture, warm up and are measured. At the end everything sent
// must have arrived.
#include <cmath>
#include <deque>
#include <memory>

#include "bench/journal.h"
#include "bench/load/report.h"
#include "bench/load/runs.h"
#include "bench/load/target.h"
#include "bench/publishers.h"
#include "bench/receiver.h"
#include "tests/support/test_failure.h"

namespace {

constexpr Milliseconds PICTURE_WAIT{30000};
constexpr Milliseconds POLL{5};
// The server returns memory 10 s after connections have gone.
constexpr Milliseconds GIVE_BACK_WAIT{11000};
constexpr Milliseconds MEMORY_PERIOD{1000};
// Neither the starts nor the key frames of the streams coincide.
constexpr unsigned BEYOND_EVEN_MS = 7;
constexpr std::size_t VISITS_AT_ONCE = 8;
constexpr int STUCK_BUFFER_BYTES = 16384;

Milliseconds milliseconds(double seconds) {
    return Milliseconds{std::llround(seconds * 1000)};
}

class RelayRun {
  public:
    explicit RelayRun(const LoadOptions& options) : load(options), target(options), receiver(journal) {}

    nlohmann::json run() {
        report["setup"] = setup_of(load);
        if (target.floor() == nullptr) {
            publishers = std::make_unique<Publishers>(publisher_options(), receiver, journal);
        }
        say("players join");
        join_players();
        wait_for_pictures();
        join_stuck_players();
        std::this_thread::sleep_for(milliseconds(load.warm_up_seconds));
        say("measuring");
        measure();
        finish();
        report["failures"] = journal.failures();
        report["passed"] = journal.failure_count() == 0;
        return report;
    }

  private:
    PublisherOptions publisher_options() const {
        PublisherOptions options;
        options.count = load.publishers;
        options.shape = load.shape;
        options.chunk_sizes = {load.publisher_chunk_bytes};
        options.between_streams =
            Milliseconds{load.shape.key_interval_ms() / load.publishers + BEYOND_EVEN_MS};
        options.client = target.client_options();
        return options;
    }

    LoadPlayer connect_player(std::size_t stream_idx, int receive_buffer_bytes = 0) const {
        const std::uint64_t begun_us = now_us();
        ClientOptions options = target.client_options();
        options.receive_buffer_bytes = receive_buffer_bytes;
        return LoadPlayer(target.floor() != nullptr ? RtmpClient(options) : handshaken_client(options),
                          stream_name(stream_idx), load.player_chunk_bytes, begun_us);
    }

    void join_players() {
        const TimePoint begin = SteadyClock::now();
        const double pause_seconds = load.ramp_seconds / std::max(load.all_players(), 1U);
        for (unsigned i = 0; i < load.all_players(); ++i) {
            std::this_thread::sleep_until(begin + milliseconds(pause_seconds * i));
            const std::size_t stream_idx = i % load.publishers;
            receiver.add(connect_player(stream_idx), stream_idx);
        }
    }

    void wait_for_pictures() {
        if (!holds_within(
                PICTURE_WAIT, [this] { return pictures() == load.all_players(); }, POLL)) {
            throw TestFailure(std::to_string(load.all_players() - pictures()) +
                              " players got no picture in time");
        }
        report["first_picture"] = figures_of(all.first_pictures);
    }

    std::uint64_t pictures() {
        all.merge(receiver.take_tally());
        return all.first_pictures.count();
    }

    void join_stuck_players() {
        if (load.stuck == 0) {
            return;
        }
        memory_before_stuck = memory();
        all.merge(receiver.take_tally());
        bytes_before_stuck = all.bytes;
        for (unsigned i = 0; i < load.stuck; ++i) {
            stuck.push_back(connect_player(0, STUCK_BUFFER_BYTES));
        }
    }

    std::size_t memory() const { return target.pid() != 0 ? resident_kib(target.pid()) : 0; }

    void measure() {
        all.merge(receiver.take_tally());
        if (publishers) {
            publishers->take_worst_delay_ms();
        }
        const Snapshot before = Snapshot::take(target.pid());
        const TimePoint end = before.when + milliseconds(load.seconds);
        if (load.mode == Mode::STORM) {
            storm_until(end);
        } else {
            watch_memory_until(end);
        }
        const FrameTally tally = receiver.take_tally();
        const Snapshot after = Snapshot::take(target.pid());
        all.merge(tally);
        report.update(costs_between(before, after));
        add_figures(tally);
    }

    void watch_memory_until(TimePoint end) {
        while (SteadyClock::now() < end) {
            std::this_thread::sleep_until(std::min(end, SteadyClock::now() + MEMORY_PERIOD));
            memory_peak = std::max(memory_peak, memory());
        }
    }

    // Players join one after another. After a few more joins each leaves, alternately by an orderly close and
    // by a reset.
    void storm_until(TimePoint end) {
        std::deque<Receiver::Id> visitors;
        std::uint64_t visits = 0;
        std::uint64_t refused = 0;
        while (SteadyClock::now() < end) {
            const std::size_t stream_idx = visits % load.publishers;
            try {
                visitors.push_back(receiver.add(connect_player(stream_idx), stream_idx, Measure::LOSS_ONLY));
                ++visits;
            } catch (const TestFailure&) {
                ++refused;
            }
            if (visitors.size() > VISITS_AT_ONCE) {
                receiver.remove(visitors.front(),
                                visits % 2 == 0 ? Receiver::Leave::CLOSE : Receiver::Leave::RESET);
                visitors.pop_front();
            }
        }
        for (const Receiver::Id id : visitors) {
            receiver.remove(id);
        }
        report["visits"] = visits;
        report["refused_visits"] = refused;
    }

    void add_figures(const FrameTally& tally) {
        report["frames"] = tally.frames;
        report["bytes"] = tally.bytes;
        report["lateness"] = figures_of(tally.lateness);
        report["publisher_delay_ms"] = publishers ? publishers->take_worst_delay_ms() : 0;
        if (load.mode == Mode::STORM) {
            report["first_picture"] = figures_of(tally.first_pictures);
        }
        if (report.contains("server") && tally.frames != 0) {
            const nlohmann::json& server = report["server"];
            report["cpu_s_per_gb"] = server["cpu_s"].get<double>() / (static_cast<double>(tally.bytes) / 1e9);
            report["main_us_per_frame"] =
                server["main_cpu_s"].get<double>() * 1e6 / static_cast<double>(tally.frames);
        }
    }

    // Requires that everything sent arrives and that the server exits cleanly.
    void finish() {
        const std::vector<std::uint32_t> sent = stop_sending();
        const Milliseconds wait = milliseconds(load.arrival_wait_seconds);
        (void)holds_within(
            wait, [&] { return receiver.missing(sent) == 0; }, POLL);
        report["not_arrived"] = receiver.missing(sent);
        all.merge(receiver.take_tally());
        report.update(faults_of(all));
        report["late"] = all.lateness.later_than_ms(load.late_ms);
        if (all.lost != 0 || all.faults() != 0 || report["not_arrived"] != 0) {
            journal.fail("frames are lost or damaged");
        }
        if (load.stuck != 0) {
            add_stuck_figures();
        }
        receiver.stop();
        publishers.reset();
        target.stop();
    }

    std::vector<std::uint32_t> stop_sending() {
        if (target.floor() != nullptr) {
            const FloorSender::Counts counts = target.floor()->finish();
            report["messages"] = counts.messages;
            report["sends"] = counts.sends;
            return {counts.frames};
        }
        publishers->stop();
        return publishers->sent();
    }

    void add_stuck_figures() {
        nlohmann::json figures = {{"players", load.stuck},
                                  {"before_kib", memory_before_stuck},
                                  {"peak_kib", std::max(memory_peak, memory())}};
        figures["stream_bytes"] = (all.bytes - bytes_before_stuck) / std::max(load.players, 1U);
        stuck.clear();
        std::this_thread::sleep_for(GIVE_BACK_WAIT);
        figures["after_kib"] = memory();
        report["stuck"] = figures;
    }

    const LoadOptions load;
    nlohmann::json report;
    Target target;
    Journal journal;
    // The receiver reads from the publishers' descriptors, so it must be destroyed before them.
    std::unique_ptr<Publishers> publishers;
    Receiver receiver;
    std::vector<LoadPlayer> stuck;
    std::size_t memory_before_stuck = 0;
    std::size_t memory_peak = 0;
    std::uint64_t bytes_before_stuck = 0;
    FrameTally all;
};

}  // namespace

nlohmann::json run_relay(const LoadOptions& load) {
    return RelayRun(load).run();
}

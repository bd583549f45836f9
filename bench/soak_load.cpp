// A long, busy run of the real server in its own namespaces. Publishers and players check every frame, while
// other clients come and go, stall, take over, are dropped and send garbage. Measurements go to
// DIR/samples.csv once a second, totals to DIR/totals.json at the end, and the server's messages to
// DIR/server.log. soak_report.py judges them. scripts/soak runs all of it.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/publishers.h"
#include "bench/soak/actor.h"
#include "bench/soak/crowd.h"
#include "bench/soak/garbage_client.h"
#include "bench/soak/operator.h"
#include "bench/soak/samples.h"
#include "bench/soak/stalled_player.h"
#include "bench/soak/takeover.h"
#include "tests/support/private_namespaces.h"
#include "tests/support/program_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr Milliseconds SAMPLE_PERIOD{1000};
constexpr Milliseconds JOIN_PERIOD{1000};
constexpr Milliseconds PROGRESS_PERIOD{10000};
constexpr Milliseconds SETTLE_WAIT{30000};
constexpr Milliseconds SETTLE_POLL{20};
constexpr Milliseconds THREAD_COUNT_DELAY{500};
constexpr Milliseconds STOP_WAIT{60000};
// Staggers the streams, so their key frames do not coincide.
constexpr Milliseconds BETWEEN_STREAMS{261};
constexpr double KEY_FRAME_IN_MEANS = 7;
constexpr std::uint32_t LARGE_CHUNK_BYTES = 4096;
constexpr unsigned WORTH_THE_WAIT_SECONDS = 60;
// One player in five comes and goes.
constexpr unsigned PLAYERS_PER_VISITOR = 5;

struct Soak {
    std::string out_dir;
    unsigned seconds = 1200;
    unsigned publishers = 8;
    unsigned players = 100;
    unsigned kbit_per_second = 1000;
    unsigned joins_per_second = 2;
    unsigned stall_seconds = 30;
    unsigned operator_seconds = 5;
    unsigned takeover_seconds = 10;
    unsigned garbage_ms = 250;
    unsigned late_ms = 250;
    unsigned seed = 1;
    unsigned skip_frame = 0;
    std::vector<std::string> beside;
};

volatile std::sig_atomic_t end_requested = 0;

void request_end(int /*signal*/) {
    end_requested = 1;
}

// Waits for a condition that must hold soon. False if it does not.
template <typename Condition>
bool settles(Condition condition) {
    return holds_within(SETTLE_WAIT, condition, SETTLE_POLL);
}

// Returns what the server holds after one client has come and gone. Some of it is created with the first
// client, such as a sanitizer's own thread.
Holdings holdings_at_rest(const ServerProcess& server) {
    const std::size_t descriptors = server.fd_count();
    (void)connected_client().round_trip();
    // The descriptor is closed last. The kernel may still count the threads for a moment.
    if (!settles([&] { return server.fd_count() == descriptors; })) {
        throw TestFailure("the server does not come to rest after its first client");
    }
    std::this_thread::sleep_for(THREAD_COUNT_DELAY);
    return holdings_of(server);
}

class SoakRun {
  public:
    explicit SoakRun(const Soak& soak_options)
        : soak(soak_options),
          server(server_options(soak)),
          start(holdings_at_rest(server)),
          receiver(journal),
          crowd(soak.publishers, receiver, journal) {}

    void run() {
        publishers = std::make_unique<Publishers>(publisher_options(soak), receiver, journal);
        for (unsigned i = 0; i < soak.players; ++i) {
            if (i % PLAYERS_PER_VISITOR == 0) {
                crowd.join_for_a_while();
            } else {
                crowd.join_to_stay();
            }
        }
        (void)receiver.take_tally().frames;
        samples.emplace(soak.out_dir + "/samples.csv", server, soak.late_ms);
        std::optional<ProgramProcess> beside;
        if (!soak.beside.empty()) {
            beside.emplace(soak.beside);
        }
        start_actors();
        observe();
        if (beside) {
            end_program(*beside);
        }
        for (const auto& actor : actors) {
            actor->stop();
        }
        // A player begins with a key frame; the last to join may still wait for theirs.
        settles([&] { return receiver.waiting() == 0; });
        publishers->stop();
    }

    // Removes all clients. Reports what the server still holds, and whether everything arrived.
    void finish() {
        const std::vector<std::uint32_t> sent = publishers->sent();
        settles([&] { return receiver.missing(sent) == 0; });
        totals["missing"] = receiver.missing(sent);
        samples->add(receiver.take_tally(), receiver.player_count(), publishers->take_worst_oversleep_ms());
        crowd.let_all_leave(sent);
        receiver.stop();
        publishers.reset();
        settles([&] {
            const Holdings now = holdings_of(server);
            return now.threads <= start.threads && now.descriptors <= start.descriptors;
        });
        Holdings end = holdings_of(server);
        const bool at_rest = soak.seconds >= WORTH_THE_WAIT_SECONDS;
        if (at_rest) {
            end.rss_kib = server.rss_kib_at_rest();
        }
        totals["end"] = to_json(end);
        totals["end_at_rest"] = at_rest;
        totals["server_cpu_ms"] = server.cpu_time().count();
        totals["stop_ms"] = server.stop(STOP_WAIT).count();
    }

    // Writes what is known, even after an early failure.
    void write_totals() {
        totals["start"] = to_json(start);
        totals["seconds"] = static_cast<double>(elapsed_since(begin).count()) / 1000;
        totals["ended_early"] = end_requested != 0;
        totals["counts"] = journal.counts();
        totals["failures"] = journal.failures();
        totals["failure_count"] = journal.failure_count();
        totals["late_limit_ms"] = soak.late_ms;
        totals["setup"] = {
            {"publishers", soak.publishers}, {"players", soak.players}, {"kbit", soak.kbit_per_second}};
        if (samples) {
            const FrameTally& sum = samples->total();
            totals["frames"] = sum.frames;
            totals["bytes"] = sum.bytes;
            totals["lost"] = sum.lost;
            totals["damaged"] = sum.faults();
            totals["late"] = sum.lateness.later_than_ms(soak.late_ms);
            totals["median_ms"] = sum.lateness.percentile_ms(0.5);
            totals["p99_ms"] = sum.lateness.percentile_ms(0.99);
            totals["most_ms"] = sum.lateness.most_ms();
        }
        std::ofstream file(soak.out_dir + "/totals.json");
        file << totals.dump(2) << std::endl;
        if (!file) {
            throw TestFailure("totals.json cannot be written");
        }
    }

    Journal journal;

  private:
    static ServerOptions server_options(const Soak& soak) {
        ServerOptions options;
        options.stderr_file = soak.out_dir + "/server.log";
        return options;
    }

    static PublisherOptions publisher_options(const Soak& soak) {
        PublisherOptions options;
        options.count = soak.publishers;
        options.shape.set_video_kbit(soak.kbit_per_second - options.shape.audio_kbit_per_second);
        options.shape.key_frame_in_means = KEY_FRAME_IN_MEANS;
        // Encoders use different chunk sizes.
        options.chunk_sizes = {LARGE_CHUNK_BYTES, DEFAULT_CHUNK_SIZE};
        options.between_streams = BETWEEN_STREAMS;
        options.skip_frame = soak.skip_frame;
        return options;
    }

    void add_actor(const std::string& name, Milliseconds pause, std::function<void(Actor&)> step) {
        actors.push_back(std::make_unique<Actor>(name, pause, journal, std::move(step)));
    }

    void start_actors() {
        add_actor("joins and leaves", JOIN_PERIOD / soak.joins_per_second, [this](Actor&) {
            crowd.let_one_leave(publishers->sent());
            crowd.join_for_a_while();
        });
        auto stalled = std::make_shared<StalledPlayer>(
            soak.publishers, std::chrono::seconds(soak.stall_seconds), receiver, journal);
        add_actor("stalled player", Milliseconds{0}, [stalled](Actor& self) { stalled->step(self); });
        auto garbage = std::make_shared<GarbageClients>(soak.seed, journal);
        add_actor("garbage client", Milliseconds{soak.garbage_ms}, [garbage](Actor&) { garbage->step(); });
        auto tool = std::make_shared<Operator>(
            OperatorOrders{soak.publishers,
                           soak.players - (soak.players + PLAYERS_PER_VISITOR - 1) / PLAYERS_PER_VISITOR},
            journal);
        add_actor("control tool", std::chrono::seconds(soak.operator_seconds),
                  [tool](Actor&) { tool->step(); });
        add_actor("takeover", std::chrono::seconds(soak.takeover_seconds),
                  [this](Actor& self) { take_over(self, journal); });
    }

    void end_program(ProgramProcess& program) {
        program.send_signal(SIGTERM);
        if (program.wait_for_exit(STOP_WAIT) != ProgramEnd{0, 0}) {
            journal.fail(soak.beside.front() + ": " + program.out().raw_text() + program.err().raw_text());
        }
    }

    void observe() {
        begin = SteadyClock::now();
        const TimePoint end = begin + std::chrono::seconds(soak.seconds);
        TimePoint next = begin;
        TimePoint next_progress = begin + PROGRESS_PERIOD;
        while (end_requested == 0 && !publishers->have_failed() && SteadyClock::now() < end) {
            next += SAMPLE_PERIOD;
            std::this_thread::sleep_until(next);
            samples->add(receiver.take_tally(), receiver.player_count(),
                         publishers->take_worst_oversleep_ms());
            if (SteadyClock::now() >= next_progress) {
                next_progress += PROGRESS_PERIOD;
                std::printf("%s\n", samples->progress().c_str());
                std::fflush(stdout);
            }
        }
    }

    const Soak soak;
    nlohmann::json totals;
    ServerProcess server;
    const Holdings start;
    TimePoint begin = SteadyClock::now();
    // Reads from the publishers' descriptors, so it must be destroyed before them.
    std::unique_ptr<Publishers> publishers;
    Receiver receiver;
    Crowd crowd;
    std::optional<SampleFile> samples;
    std::vector<std::unique_ptr<Actor>> actors;
};

int run(const Soak& soak) {
    SoakRun soak_run(soak);
    std::printf("%u publishers, %u players, %u kbit/s each, for %u s\n", soak.publishers, soak.players,
                soak.kbit_per_second, soak.seconds);
    std::fflush(stdout);
    soak_run.journal.attempt("soak", [&] {
        soak_run.run();
        soak_run.finish();
    });
    soak_run.write_totals();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Soak soak;
    CLI::App app(
        "A long run of the server under every kind of client; soak_report.py judges what it writes.");
    app.add_option("--out", soak.out_dir, "directory for what is measured")
        ->required()
        ->check(CLI::ExistingDirectory);
    const auto add = [&app](const char* name, unsigned& value, const char* description, unsigned least,
                            unsigned most) {
        app.add_option(name, value, description)->capture_default_str()->check(CLI::Range(least, most));
    };
    add("--seconds", soak.seconds, "how long", 1, 30 * 24 * 3600);
    add("--publishers", soak.publishers, "streams", 1, 12);
    add("--players", soak.players, "well-behaved players", 5, 100);
    add("--kbit", soak.kbit_per_second, "rate of a stream in kbit/s", 256, 20000);
    add("--joins", soak.joins_per_second, "players that come, and that go, in a second", 1, 10);
    add("--stall", soak.stall_seconds, "seconds for which the stalled player does not read", 1, 3600);
    add("--tool-pause", soak.operator_seconds, "seconds between two uses of the control tool", 0, 3600);
    add("--takeover-pause", soak.takeover_seconds, "seconds between two takeovers", 0, 3600);
    add("--garbage-pause", soak.garbage_ms, "milliseconds between two garbage clients", 0, 60000);
    add("--late", soak.late_ms, "milliseconds after which a frame is late", 1, 10000);
    add("--seed", soak.seed, "of the garbage", 0, 1U << 30);
    add("--skip-frame", soak.skip_frame,
        "number every so manieth frame without sending it: the report must notice", 0, 1U << 30);
    app.add_option("beside", soak.beside, "a program, and after -- its arguments, that runs beside the load")
        ->type_name("PROGRAM ...");
    CLI11_PARSE(app, argc, argv);
    try {
        enter_private_namespaces(argv);
        std::signal(SIGINT, request_end);
        std::signal(SIGTERM, request_end);
        return run(soak);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak_load: %s\n", error.what());
        return 1;
    }
}

// Drives the server's main loop and the reference model with random schedules on a fake clock, and stops at
// the first difference. It shows a difference with the shortest schedule found for it, and with the command
// that repeats it.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>

#include "tests/model/comparison.h"
#include "tests/support/silent_system.h"

namespace {

// Every SAMPLING-th schedule is searched for the texts it reached.
constexpr std::uint64_t SAMPLING = 16;

// Texts that some schedule must have printed. If none gets that far, equal outcomes prove nothing.
constexpr std::array<std::string_view, 34> TEXTS_TO_REACH{
    "Hrmph, RTMP publisher ignored stream ID in reply.",
    "Existing RTMP publisher for stream stalled, taking over as publisher\n",
    "Notifing subscribers of time reset\n",
    "Dropping subscriber because format change\n",
    "From publisher to connection: source timebase 16777215, add 0\n",
    "From publisher to connection: source timebase 4294967295, add 0\n",
    "Relay: Repeating video sequence header\n",
    "Relay: Repeating audio sequence header\n",
    "RTMP: Saving a copy of the H.264 sequence header\n",
    "RTMP: Saving a copy of the audio sequence header\n",
    "Lock on audio type 10\n",
    "Lock on audio type 10 (0xa) ''\n",
    "Lock on audio type 1836069985 (0x6d703461) 'mp4a'\n",
    "Lock on video type 7\n",
    "Lock on video type -2147483648 (0x80000000)",
    "Audio format change\n",
    "Video format change\n",
    "Publisher changed audio codec\n",
    "Publisher changed video codec\n",
    "Relay fail\n",
    "A/V packet without a stream name\n",
    "A/V error\n",
    "AMF0 error command\n",
    "AMF0 error notify\n",
    "width changed\n",
    "height changed\n",
    "audio fourcc changed\n",
    "video fourcc changed\n",
    "client is publisher but not current publisher, holding onMetaData for later\n",
    "Repeating publisher's onMeta to new client\n",
    "Connection for play unsubscribed from 'a'\n",
    "Disposing old stream 'a'\n",
    "Not cancelling thread, it died\n",
    "Thread 2 died\n",
};

struct Options {
    std::uint64_t seed = 1;
    std::uint64_t schedules = 1000;
    std::size_t steps = 0;
    bool show = false;
};

// The current schedule, for the abort handler.
std::uint64_t running_seed = 0;

extern "C" void tell_about_abort(int /*signal*/) {
    char text[64];
    const int length = std::snprintf(text, sizeof text, "\naborted in the schedule of seed %llu\n",
                                     static_cast<unsigned long long>(running_seed));
    (void)!write(STDERR_FILENO, printed_text.data(), printed_text.size());
    (void)!write(STDERR_FILENO, text, static_cast<std::size_t>(length));
}

void show(const Schedule& schedule) {
    std::printf("clock at the start: %llu us; first slot: %zu\n",
                static_cast<unsigned long long>(schedule.start_us), schedule.first_slot);
    for (const Action& action : schedule.actions) {
        std::printf("  %s\n", shown(action).c_str());
    }
}

void report(const Schedule& schedule, const Options& options) {
    const Schedule shortest = shortened(schedule);
    std::printf("The server and the model differ in the schedule of seed %llu. The shortest form found:\n",
                static_cast<unsigned long long>(schedule.seed));
    show(shortest);
    if (const std::optional<Difference> difference = compare(shortest)) {
        std::printf("Then:\n%s", difference->what.c_str());
    }
    std::printf("Again: model_check --seed %llu --steps %zu --schedules 1\n",
                static_cast<unsigned long long>(schedule.seed), options.steps);
}

bool all_reached(const std::array<std::uint64_t, TEXTS_TO_REACH.size()>& reached, bool show_counts) {
    bool all = true;
    for (std::size_t i = 0; i < TEXTS_TO_REACH.size(); ++i) {
        const std::string_view text = TEXTS_TO_REACH[i].substr(0, TEXTS_TO_REACH[i].find('\n'));
        if (show_counts) {
            std::printf("%9llu  %.*s\n", static_cast<unsigned long long>(reached[i]),
                        static_cast<int>(text.size()), text.data());
        }
        if (reached[i] == 0) {
            std::printf("No schedule that was looked through reached: %.*s\n", static_cast<int>(text.size()),
                        text.data());
            all = false;
        }
    }
    return all;
}

int run(const Options& options) {
    const auto begin = std::chrono::steady_clock::now();
    std::array<std::uint64_t, TEXTS_TO_REACH.size()> reached{};
    std::uint64_t passes = 0;
    for (std::uint64_t i = 0; i < options.schedules; ++i) {
        running_seed = options.seed + i;
        const Schedule schedule = make_schedule(running_seed, options.steps);
        if (options.show) {
            show(schedule);
        }
        const bool sample = i % SAMPLING == 0;
        std::string text;
        if (compare(schedule, sample ? &text : nullptr)) {
            report(schedule, options);
            return 1;
        }
        for (std::size_t idx = 0; sample && idx < TEXTS_TO_REACH.size(); ++idx) {
            reached[idx] += text.find(TEXTS_TO_REACH[idx]) != std::string::npos ? 1 : 0;
        }
        for (const Action& action : schedule.actions) {
            passes += action.kind == Action::Kind::PASS ? 1 : 0;
        }
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%llu schedules, %llu passes, no difference; %.1f s, %.0f schedules/s\n",
                static_cast<unsigned long long>(options.schedules), static_cast<unsigned long long>(passes),
                took.count(), static_cast<double>(options.schedules) / took.count());
    // A run of few schedules, or of a chosen length, need not reach everything.
    const bool many = options.schedules >= 1000 * SAMPLING && options.steps == 0;
    return !many || all_reached(reached, true) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Compares the server's main loop with a reference model under random schedules");
    app.add_option("--schedules", options.schedules, "how many schedules, with seeds that follow each other");
    app.add_option("--seed", options.seed, "seed of the first schedule");
    app.add_option("--steps", options.steps,
                   "passes of the main loop in a schedule; 0: 10 to 35, by the seed");
    app.add_flag("--show", options.show, "show every schedule before it runs");
    CLI11_PARSE(app, argc, argv);
    std::signal(SIGABRT, tell_about_abort);
    return run(options);
}

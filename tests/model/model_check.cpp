// Drives the server's main loop and the reference model with random schedules on a fake clock, and stops at
// the first difference. It shows a difference with the shortest schedule found for it, and with the command
// that repeats it.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tests/model/comparison.h"

namespace {

// A run of at least this many schedules must reach every text below.
constexpr std::uint64_t MANY_SCHEDULES = 16000;

// The current schedule, for the abort handler.
std::uint64_t running_seed = 0;

extern "C" void tell_about_abort(int /*signal*/) {
    char text[64];
    const int length = std::snprintf(text, sizeof text, "\naborted in the schedule of seed %llu\n",
                                     static_cast<unsigned long long>(running_seed));
    (void)!write(STDERR_FILENO, text, static_cast<std::size_t>(length));
}

void report(const Schedule& schedule) {
    const Schedule shortest = shortened(schedule);
    std::printf(
        "The server and the model differ in the schedule of seed %llu. The shortest form found, from %llu "
        "us:\n",
        static_cast<unsigned long long>(schedule.seed), static_cast<unsigned long long>(schedule.start_us));
    for (const Action& action : shortest.actions) {
        std::printf("  %s\n", shown(action).c_str());
    }
    std::printf("Then:\n%sAgain: model_check --seed %llu --schedules 1\n",
                compare(shortest).difference.c_str(), static_cast<unsigned long long>(schedule.seed));
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t first_seed = 1;
    std::uint64_t schedules = 1000;
    CLI::App app("Compares the server's main loop with a reference model under random schedules");
    app.add_option("--schedules", schedules, "how many schedules, with seeds that follow each other");
    app.add_option("--seed", first_seed, "seed of the first schedule");
    CLI11_PARSE(app, argc, argv);
    std::signal(SIGABRT, tell_about_abort);

    // Texts that some schedule must have printed. If none gets that far, equal outcomes prove nothing.
    std::vector<std::string_view> unreached{
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
        "Lock on video type 7\n",
        "Audio format change\n",
        "Video format change\n",
        "Publisher changed audio codec\n",
        "Publisher changed video codec\n",
        "Relay fail\n",
        "A/V packet without a stream name\n",
        "A/V error\n",
        "AMF0 error command\n",
        "width changed\n",
        "height changed\n",
        "audio fourcc changed\n",
        "video fourcc changed\n",
        "client is publisher but not current publisher, holding onMetaData for later\n",
        "Repeating publisher's onMeta to new client\n",
        "Connection for play unsubscribed from 'a'\n",
        "Disposing old stream 'a'\n",
        "Not cancelling thread, it died\n",
        "Thread 1 died\n",
    };
    for (std::uint64_t i = 0; i < schedules; ++i) {
        running_seed = first_seed + i;
        const Schedule schedule = make_schedule(running_seed);
        const Outcome outcome = compare(schedule);
        if (!outcome.difference.empty()) {
            report(schedule);
            return 1;
        }
        std::erase_if(unreached,
                      [&](std::string_view text) { return outcome.printed.find(text) != std::string::npos; });
    }
    if (schedules < MANY_SCHEDULES) {
        return 0;
    }
    for (const std::string_view text : unreached) {
        std::printf("No schedule reached: %.*s\n", static_cast<int>(text.size()), text.data());
    }
    return unreached.empty() ? 0 : 1;
}

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/keys.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/screen.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/watch_frame.h"
#include "tools/v9_rtmp_ctl/watch_model.h"
#include "tools/v9_rtmp_ctl/watch_observer.h"

namespace {

// Time limit for finding out that the socket cannot be used.
constexpr std::uint64_t MAX_PROBE_US = 1000000;

// False if watch should end.
bool handle_keys(WatchModel& model, WatchObserver& observer) {
    std::string typed;
    if (!Screen::read_keys(typed)) {
        return false;
    }
    for (const Key& key : decode_keys(typed)) {
        switch (press_key(model, key)) {
            case WatchAction::NONE:
                break;
            case WatchAction::QUIT:
                return false;
            case WatchAction::DROP:
                observer.begin_drop(model, clock_us());
                break;
        }
    }
    return true;
}

// False if the terminal is gone.
bool paint(WatchModel& model, const Screen& screen, bool color) {
    const ScreenSize size = find_screen_size();
    settle(model, size);
    return screen.write(paint_frame(render_frame(model, size), color));
}

void watch_on_screen(const Settings& settings, const WatchOptions& options, WatchModel& model,
                     Screen& screen) {
    const bool color = find_output_style(settings).color;
    WatchObserver observer(settings, options);
    bool is_stale = true;  // the screen does not show the model
    for (;;) {
        is_stale |= observer.keep_time(model, clock_us());
        if (is_stale && !paint(model, screen, color)) {
            return;
        }
        is_stale = false;
        std::array<pollfd, 3> waited{
            {{screen.signal_fd(), POLLIN, 0}, {Screen::key_fd(), POLLIN, 0}, {observer.fd(), POLLIN, 0}}};
        poll(waited.data(), waited.size(), observer.time_left_ms(model, clock_us()));
        const SignalEvents events = screen.read_signals();
        if (events.quit) {
            return;
        }
        if (events.suspend || Screen::is_in_background()) {
            if (!screen.suspend()) {
                return;
            }
            is_stale = true;
            continue;  // The poll results are stale: the shell may have read that input.
        }
        // The new size is read when the next frame is painted.
        is_stale |= events.resize;
        // Handle the reply first: a key may end the wait for it.
        if (waited[2].revents != 0) {
            is_stale |= observer.take_replies(model, clock_us());
        }
        if (waited[1].revents != 0) {
            if (!handle_keys(model, observer)) {
                return;
            }
            is_stale = true;
        }
    }
}

void print_frame(const Settings& settings, const WatchModel& model) {
    if (settings.form == OutputForm::JSON) {
        const auto copy = [](const auto* item) { return *item; };
        std::vector<StreamSummary> streams;
        std::ranges::transform(shown_streams(model), std::back_inserter(streams), copy);
        std::vector<Connection> connections;
        std::ranges::transform(shown_connections(model), std::back_inserter(connections), copy);
        std::cout << watch_json(model.running, streams, connections, settings.unit) << '\n';
        return;
    }
    for (const FrameLine& line : render_endless_frame(model)) {
        std::cout << line.text << '\n';
    }
    std::cout << '\n';
}

// Runs until a signal ends the process or the output cannot be written.
void watch_in_frames(const Settings& settings, const WatchOptions& options, WatchModel& model) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    const std::chrono::microseconds every(static_cast<std::int64_t>(options.interval_seconds * 1e6));
    auto next = std::chrono::steady_clock::now();
    while (std::cout) {
        Reply reply;
        if (const std::optional<Failure> failure = client.call(list_request(""), reply)) {
            take_in_failure(model, *failure);
        } else {
            take_in_answer(model, reply, clock_us());
        }
        print_frame(settings, model);
        std::cout.flush();
        next = std::max(next + every, std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
    }
}

}  // namespace

ExitCode run_watch(const Settings& settings, const WatchOptions& options) {
    // If the server is not running, watch starts anyway and waits for it. If permission is missing or the
    // path cannot be used, it says so and ends.
    ControlClient probe(settings.socket_path, std::min(settings.timeout_us(), MAX_PROBE_US));
    const std::optional<Failure> failure = probe.connect();
    if (failure && (failure->exit_code == ExitCode::PERMISSION || failure->exit_code == ExitCode::USAGE)) {
        return report(*failure);
    }
    probe.disconnect();
    WatchModel model;
    model.selection = options.selection;
    model.unit = settings.unit;
    const std::unique_ptr<Screen> screen = settings.form == OutputForm::JSON ? nullptr : Screen::open();
    if (screen != nullptr) {
        watch_on_screen(settings, options, model, *screen);
    } else {
        watch_in_frames(settings, options, model);
    }
    return ExitCode::DONE;
}

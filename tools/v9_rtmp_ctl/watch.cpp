#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <iostream>
#include <thread>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/screen.h"
#include "tools/v9_rtmp_ctl/watch_frame.h"
#include "tools/v9_rtmp_ctl/watch_model.h"

namespace {

// Keys are not looked at while a connection is made or a drop is answered.
constexpr std::uint64_t MAX_DEAF_US = 1000000;

std::string time_of_day() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 16> text{};
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%H:%M:%S", &local) == 0) {
        return "--:--:--";
    }
    return text.data();
}

std::uint64_t interval_us(const WatchOptions& options) {
    return static_cast<std::uint64_t>(options.interval_seconds * 1e6);
}

// Takes the answer in, whatever it is.
void take_in_answer(WatchModel& model, const Reply& reply, std::uint64_t now_us) {
    Listing listing;
    listing.taken_us = now_us;
    model.clock = time_of_day();
    if (const std::optional<Failure> failure = read_listing(reply, listing)) {
        take_in(model, *failure);
    } else {
        take_in(model, std::move(listing));
    }
}

void take_in_failure(WatchModel& model, const Failure& failure) {
    model.clock = time_of_day();
    take_in(model, failure);
}

// Whoever took the candidate's slot, or what it began, while its question waited is not what the yes was for.
std::optional<Failure> drop_if_unchanged(ControlClient& client, const Connection& candidate) {
    Listing listing;
    if (std::optional<Failure> failure = take_listing(client, "", listing)) {
        return failure;
    }
    if (std::optional<Failure> failure = judge_candidate(candidate, listing.connections)) {
        return failure;
    }
    Reply reply;
    if (std::optional<Failure> failure =
            client.call(drop_id_request(candidate.id, candidate.stream), reply)) {
        return failure;
    }
    return judge_drop_id(candidate.id, candidate.stream, reply);
}

// Looks at the server on time, without making the keys wait for its answer.
class Observer {
  public:
    Observer(const Settings& all_settings, const WatchOptions& options)
        : settings(all_settings),
          client(settings.socket_path, std::min(settings.timeout_us(), MAX_DEAF_US)),
          every_us(interval_us(options)) {}

    // Begins a look when one is due, and gives up one that is late.
    void keep_time(WatchModel& model, std::uint64_t now_us) {
        if (pending && now_us >= deadline_us) {
            pending = false;
            client.disconnect();
            take_in_failure(model, describe_failure(COMM_SOCKET_V4_TIMEOUT, settings.socket_path));
        }
        if (pending || model.paused || now_us < next_us) {
            return;
        }
        next_us = now_us + every_us;
        deadline_us = now_us + settings.timeout_us();
        if (const std::optional<Failure> failure = client.start(list_request(""))) {
            take_in_failure(model, *failure);
            return;
        }
        pending = true;
    }

    // Once fd() is readable.
    void take_reply(WatchModel& model) {
        Reply reply;
        bool found = false;
        if (const std::optional<Failure> failure = client.poll_reply(reply, found)) {
            pending = false;
            take_in_failure(model, *failure);
        } else if (found) {
            pending = false;
            take_in_answer(model, reply, clock_us());
        }
    }

    // Drops the candidate and says in the model's notice what came of it.
    void drop_candidate(WatchModel& model) {
        const Connection candidate = *model.drop_candidate;
        model.drop_candidate.reset();
        pending = false;  // The look under way is lost; another follows at once.
        next_us = 0;
        const std::optional<Failure> failure = drop_if_unchanged(client, candidate);
        model.notice =
            failure ? failure->message : "Dropped connection " + std::to_string(candidate.id) + ".";
    }

    // Readable when a reply may have come; -1 when none is awaited.
    [[nodiscard]] int fd() const { return pending ? client.fd() : -1; }

    // Until keep_time has something to do; -1 for never.
    [[nodiscard]] int time_left_ms(const WatchModel& model, std::uint64_t now_us) const {
        if (!pending && model.paused) {
            return -1;
        }
        const std::uint64_t due_us = pending ? deadline_us : next_us;
        return due_us > now_us ? static_cast<int>((due_us - now_us + 999) / 1000) : 0;
    }

  private:
    const Settings& settings;
    ControlClient client;
    const std::uint64_t every_us;
    std::uint64_t next_us = 0;
    std::uint64_t deadline_us = 0;
    bool pending = false;
};

// False when it is time to leave.
bool handle_keys(WatchModel& model, Observer& observer) {
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
                observer.drop_candidate(model);
                break;
        }
    }
    return true;
}

void watch_on_screen(const Settings& settings, const WatchOptions& options, WatchModel& model,
                     Screen& screen) {
    const bool color = find_output_style(settings).color;
    Observer observer(settings, options);
    for (;;) {
        observer.keep_time(model, clock_us());
        const ScreenSize size = find_screen_size();
        model.scroll = std::min(model.scroll, last_scroll(model, size));
        if (!Screen::write(paint_frame(render_frame(model, size), color))) {
            return;
        }
        std::array<pollfd, 3> waited{
            {{screen.signal_fd(), POLLIN, 0}, {Screen::key_fd(), POLLIN, 0}, {observer.fd(), POLLIN, 0}}};
        poll(waited.data(), waited.size(), observer.time_left_ms(model, clock_us()));
        const SignalEvents events =
            screen.read_signals();  // A new size is found when the next frame is made.
        if (events.quit) {
            return;
        }
        if (events.suspend || Screen::is_in_background()) {
            if (!screen.suspend()) {
                return;
            }
            continue;  // What was typed before was for the shell.
        }
        // The reply goes first: a key may end the wait for it.
        if (waited[2].revents != 0) {
            observer.take_reply(model);
        }
        if (waited[1].revents != 0 && !handle_keys(model, observer)) {
            return;
        }
    }
}

void print_frame(const Settings& settings, const WatchModel& model) {
    if (settings.form == OutputForm::JSON) {
        std::cout << watch_json(model.running, model.streams, model.listing.connections) << '\n';
        return;
    }
    for (const FrameLine& line : render_endless_frame(model)) {
        std::cout << line.text << '\n';
    }
    std::cout << '\n';
}

// Until the process is ended or nobody takes the output any more.
void watch_in_frames(const Settings& settings, const WatchOptions& options, WatchModel& model) {
    ControlClient client(settings.socket_path, settings.timeout_us());
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
        next = std::max(next + std::chrono::microseconds(interval_us(options)),
                        std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
    }
}

}  // namespace

ExitCode run_watch(const Settings& settings, const WatchOptions& options) {
    // A server that is not running is waited for, but nobody gives this process a permission that it lacks.
    ControlClient probe(settings.socket_path, std::min(settings.timeout_us(), MAX_DEAF_US));
    const std::optional<Failure> failure = probe.connect();
    if (failure && (failure->exit_code == ExitCode::PERMISSION || failure->exit_code == ExitCode::USAGE)) {
        return report(*failure);
    }
    probe.disconnect();
    WatchModel model;
    const std::unique_ptr<Screen> screen = settings.form == OutputForm::JSON ? nullptr : Screen::open();
    if (screen != nullptr) {
        watch_on_screen(settings, options, model, *screen);
    } else {
        watch_in_frames(settings, options, model);
    }
    return ExitCode::DONE;
}

// serve: one thread polls the server once a second, another answers HTTP clients with the results.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/drop_batch.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/listen_address.h"
#include "tools/v9_rtmp_ctl/monitor.h"
#include "tools/v9_rtmp_ctl/serve/http_loop.h"
#include "tools/v9_rtmp_ctl/serve/http_pages.h"
#include "tools/v9_rtmp_ctl/serve/http_rules.h"
#include "tools/v9_rtmp_ctl/serve/status_json.h"
#include "tools/v9_rtmp_ctl/serve/status_page.h"

namespace {

constexpr std::chrono::seconds POLL_INTERVAL{1};
// Other viewers wait while a drop is carried out.
constexpr std::uint64_t MAX_DROP_US = 1000000;
constexpr int BACKLOG = 256;

std::optional<Failure> open_listener(const ServeOptions& options, int& listener) {
    const ListenAddress wanted = parse_listen_address(options.listen).value_or(ListenAddress());
    const int on = 1;
    listener = socket(wanted.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener >= 0 && setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        bind(listener, reinterpret_cast<const sockaddr*>(&wanted.address), wanted.length) == 0 &&
        listen(listener, BACKLOG) == 0) {
        return std::nullopt;
    }
    return Failure{ExitCode::NEGATIVE_ANSWER, "cannot listen on " + options.listen + " (" +
                                                  std::strerror(errno) +
                                                  "). Name another address or port with --listen."};
}

// The result of the last poll, shared by both threads.
class Board {
  public:
    void pin(const MonitorView& view) {
        auto copy = std::make_shared<const MonitorView>(view);
        const std::lock_guard lock(mutex);
        pinned = std::move(copy);
    }
    [[nodiscard]] std::shared_ptr<const MonitorView> take() const {
        const std::lock_guard lock(mutex);
        return pinned;
    }

  private:
    mutable std::mutex mutex;
    std::shared_ptr<const MonitorView> pinned = std::make_shared<const MonitorView>();
};

// Polls once a second, or immediately if the previous poll took longer than that.
[[noreturn]] void poll_forever(Monitor& monitor, Board& board) {
    for (auto next = std::chrono::steady_clock::now() + POLL_INTERVAL;;) {
        std::this_thread::sleep_until(next);
        monitor.poll();
        board.pin(monitor.view());
        next = std::max(next + POLL_INTERVAL, std::chrono::steady_clock::now());
    }
}

double seconds_since_epoch() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) / 1000;
}

// All viewers get the same document until the next poll.
class StatusDocument {
  public:
    const std::string& of(const std::shared_ptr<const MonitorView>& view, bool allows_drop) {
        if (made_of != view) {
            text = status_json(*view, {allows_drop, seconds_since_epoch()});
            made_of = view;
        }
        return text;
    }

  private:
    std::shared_ptr<const MonitorView> made_of;
    std::string text;
};

std::optional<Failure> drop(const Settings& settings, const MonitorView& view, const std::string& id_text,
                            const std::string& address) {
    const std::optional<unsigned> id = parse_connection_id(id_text);
    if (!id) {
        return bad_connection_id(id_text);
    }
    const Connection* const seen = find_connection(view.listing.connections, *id);
    if (seen == nullptr || seen->address != address) {
        return no_such_connection(*id);
    }
    ControlClient client(settings.socket_path, std::min(settings.timeout_us(), MAX_DROP_US));
    std::vector<DropOutcome> outcomes;
    std::optional<Failure> failure = seen->whole_name_bytes != 0
                                         ? drop_cut_names(client, {*seen}, outcomes)
                                         : drop_targets(client, {target_of(*seen)}, outcomes);
    if (failure) {
        return failure;
    }
    return outcomes.front().failure;
}

PageContents make_contents(const Settings& settings, const Board& board, bool allows_drop) {
    PageContents contents;
    contents.metrics = [&board] { return metrics_of(*board.take(), MetricsSpan::ALL_POLLS); };
    contents.connections_json = [&board, allows_drop, document = std::make_shared<StatusDocument>()] {
        return document->of(board.take(), allows_drop);
    };
    contents.status_page = [&board](const std::string& nonce) {
        return status_page(nonce, status_table(*board.take()));
    };
    contents.sickness = [&board] {
        const std::shared_ptr<const MonitorView> view = board.take();
        return view->failure ? view->failure->message : std::string();
    };
    contents.drop = [&settings, &board](const std::string& id, const std::string& address) {
        return drop(settings, *board.take(), id, address);
    };
    return contents;
}

// Prints the actual port, which the system may have chosen.
void print_listening(const Settings& settings, int listener) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (!settings.quiet && getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        std::cout << "http://" << listen_address_text(address) << "/" << std::endl;
    }
}

}  // namespace

ExitCode run_serve(const Settings& settings, const ServeOptions& options) {
    PageRules rules{options.host_names, {}};
    if (options.allow_drop) {
        if (const std::optional<Failure> failure = read_token(options.token_file, rules.token)) {
            return report(*failure);
        }
    }
    int listener = -1;
    if (const std::optional<Failure> failure = open_listener(options, listener)) {
        return report(*failure);
    }
    // The first poll is complete before the first client is served. The board and the monitor last as long as
    // the process.
    static Board board;
    static Monitor monitor(settings.socket_path, settings.timeout_us(), options.watchdog_state);
    monitor.poll();
    board.pin(monitor.view());
    std::thread(poll_forever, std::ref(monitor), std::ref(board)).detach();
    HttpPages pages(rules, make_contents(settings, board, options.allow_drop));
    HttpLoop loop(listener, [&pages](const std::string& head) { return pages.answer(head); });
    print_listening(settings, listener);
    for (;;) {
        loop.turn(POLL_INTERVAL);
    }
}

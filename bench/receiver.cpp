#include "bench/receiver.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "tests/support/test_failure.h"

namespace {

constexpr int WAIT_MS = 50;
constexpr std::size_t EVENTS_AT_ONCE = 64;

}  // namespace

Receiver::Receiver(Journal& failures)
    : journal(failures), epoll_fd(epoll_create1(EPOLL_CLOEXEC)), thread([this] { run(); }) {}

Receiver::~Receiver() {
    stop();
    close(epoll_fd);
}

void Receiver::stop() {
    stop_requested = true;
    if (thread.joinable()) {
        thread.join();
    }
}

// Call with the mutex held.
Receiver::Id Receiver::watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = ++last_id;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
        throw TestFailure("epoll does not take another client");
    }
    return last_id;
}

void Receiver::unwatch(int fd) const {
    (void)epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
}

Receiver::Id Receiver::add(LoadPlayer player, std::size_t stream_idx, Measure measure) {
    const std::lock_guard guard(mutex);
    const Id id = watch(player.fd());
    players.emplace(id, Player{std::move(player), stream_idx, measure});
    return id;
}

std::optional<std::uint32_t> Receiver::remove(Id id, Leave leave) {
    const std::lock_guard guard(mutex);
    const auto found = players.find(id);
    if (found == players.end()) {
        return std::nullopt;
    }
    LoadPlayer& player = found->second.player;
    const std::optional<std::uint32_t> next_frame = player.next_frame();
    unwatch(player.fd());
    if (leave == Leave::RESET) {
        player.close_with_reset();
    }
    players.erase(found);
    return next_frame;
}

void Receiver::drain(int fd, const std::string& whose) {
    const std::lock_guard guard(mutex);
    drained.emplace(watch(fd), Drained{fd, whose});
}

std::size_t Receiver::player_count() const {
    const std::lock_guard guard(mutex);
    return players.size();
}

FrameTally Receiver::take_tally() {
    const std::lock_guard guard(mutex);
    return std::exchange(tally, {});
}

std::size_t Receiver::waiting() const {
    const std::lock_guard guard(mutex);
    return static_cast<std::size_t>(std::count_if(players.begin(), players.end(), [](const auto& entry) {
        return !entry.second.player.next_frame().has_value();
    }));
}

std::uint64_t Receiver::missing(const std::vector<std::uint32_t>& sent) const {
    const std::lock_guard guard(mutex);
    std::uint64_t count = 0;
    for (const auto& [id, entry] : players) {
        count += sent.at(entry.stream_idx) - entry.player.next_frame().value_or(0);
    }
    return count;
}

void Receiver::run() {
    std::array<epoll_event, EVENTS_AT_ONCE> events{};
    while (!stop_requested) {
        const int ready = epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), WAIT_MS);
        const std::lock_guard guard(mutex);
        for (int i = 0; i < ready; ++i) {
            serve(events[static_cast<std::size_t>(i)].data.u64);
        }
    }
}

// A client in neither map has left since the event.
void Receiver::serve(Id id) {
    if (const auto player = players.find(id); player != players.end()) {
        serve_player(id, player->second);
    } else if (const auto other = drained.find(id); other != drained.end()) {
        serve_drained(id, other->second);
    }
}

void Receiver::serve_player(Id id, Player& entry) {
    if (!entry.player.receive(buffer, tally, entry.measure)) {
        journal.fail("the server closed the connection of a player of stream " +
                     std::to_string(entry.stream_idx));
        unwatch(entry.player.fd());
        players.erase(id);
    }
}

void Receiver::serve_drained(Id id, const Drained& entry) {
    const ssize_t length = recv(entry.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) {
        journal.fail("the server closed the connection of " + entry.whose);
        unwatch(entry.fd);
        drained.erase(id);
    }
}

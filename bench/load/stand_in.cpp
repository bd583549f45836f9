#include "bench/load/stand_in.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <thread>
#include <vector>

#include "bench/frame_schedule.h"
#include "bench/stamped_media.h"
#include "tests/support/chunk_bytes.h"
#include "tests/support/media_bytes.h"
#include "tests/support/test_failure.h"
#include "tests/support/time_limits.h"

namespace {

constexpr std::uint32_t AUDIO_CSID = 4;
constexpr std::uint32_t VIDEO_CSID = 6;
constexpr int BACKLOG = 128;
// Time to encode the messages.
constexpr Milliseconds PREPARATION{1000};
constexpr Milliseconds WRITER_SLEEP{50};
constexpr Milliseconds MAIN_SLEEP{10};

int listen_on(std::uint16_t port) {
    const int fd = checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "SO_REUSEADDR");
    checked(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
    checked(listen(fd, BACKLOG), "listen");
    return fd;
}

struct LaidOut {
    TimePoint due;
    Bytes bytes;
};

// Returns everything that a player receives, as on the wire.
std::vector<LaidOut> lay_out(const LoadOptions& load, TimePoint begin, std::uint32_t& frames) {
    const std::uint32_t chunk = load.player_chunk_bytes;
    std::vector<LaidOut> messages;
    if (chunk != DEFAULT_CHUNK_SIZE) {
        messages.push_back({begin, chunked({.type = MSG_SET_CHUNK_SIZE, .payload = be32(chunk), .csid = 2})});
    }
    messages.push_back(
        {begin, chunked({.type = MSG_AUDIO, .payload = aac_header(), .csid = AUDIO_CSID}, chunk)});
    messages.push_back(
        {begin, chunked({.type = MSG_VIDEO, .payload = avc_header(), .csid = VIDEO_CSID}, chunk)});
    const auto begin_us = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(begin.time_since_epoch()).count());
    // Half a second longer than the measurement.
    const auto end_ms = static_cast<std::uint32_t>((load.warm_up_seconds + load.seconds) * 1000) + 500;
    FrameSchedule schedule(load.shape);
    for (Frame frame = schedule.next(); frame.due_ms < end_ms; frame = schedule.next()) {
        const FrameKind kind = frame.is_audio ? FrameKind::AUDIO
                               : frame.is_key ? FrameKind::VIDEO_KEY
                                              : FrameKind::VIDEO_INTER;
        const FrameStamp stamp{frames++, frame.due_ms, begin_us + frame.due_ms * 1000ULL};
        messages.push_back({begin + Milliseconds{frame.due_ms},
                            chunked({.type = frame.is_audio ? MSG_AUDIO : MSG_VIDEO,
                                     .payload = stamped_frame(kind, frame.size_bytes, stamp),
                                     .csid = frame.is_audio ? AUDIO_CSID : VIDEO_CSID,
                                     .timestamp = frame.due_ms},
                                    chunk)});
    }
    return messages;
}

void send_floor(const LoadOptions& load, int listener, int report_fd) {
    std::vector<int> players;
    const int on = 1;
    while (players.size() < load.players) {
        players.push_back(checked(accept(listener, nullptr, nullptr), "accept"));
        checked(setsockopt(players.back(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "TCP_NODELAY");
    }
    FloorSender::Counts counts;
    const std::vector<LaidOut> messages = lay_out(load, SteadyClock::now() + PREPARATION, counts.frames);
    for (const LaidOut& message : messages) {
        std::this_thread::sleep_until(message.due);
        ++counts.messages;
        for (const int fd : players) {
            ++counts.sends;
            const ssize_t sent = send(fd, message.bytes.data(), message.bytes.size(), MSG_NOSIGNAL);
            if (sent != static_cast<ssize_t>(message.bytes.size())) {
                return;
            }
        }
    }
    (void)!write(report_fd, &counts, sizeof counts);
    // Its CPU time is read while it is alive.
    pause();
}

void sleep_forever(unsigned threads) {
    std::vector<std::thread> sleepers;
    for (unsigned i = 0; i < threads; ++i) {
        sleepers.emplace_back([] {
            while (true) {
                std::this_thread::sleep_for(WRITER_SLEEP);
            }
        });
    }
    while (true) {
        std::this_thread::sleep_for(MAIN_SLEEP);
    }
}

}  // namespace

StandIn::StandIn(const std::function<void(int)>& body) {
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    child = checked(fork(), "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        try {
            body(ends[1]);
        } catch (const std::exception& error) {
            (void)!write(STDERR_FILENO, error.what(), std::char_traits<char>::length(error.what()));
        }
        _exit(1);
    }
    close(ends[1]);
    report_fd = ends[0];
}

StandIn::~StandIn() {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(report_fd);
}

bool StandIn::read_report(void* report, std::size_t size_bytes) const {
    return read(report_fd, report, size_bytes) == static_cast<ssize_t>(size_bytes);
}

FloorSender::FloorSender(const LoadOptions& load) : FloorSender(load, listen_on(load.server_port)) {}

FloorSender::FloorSender(const LoadOptions& load, int listener)
    : StandIn([&load, listener](int fd) { send_floor(load, listener, fd); }), players(load.players) {
    close(listener);
}

FloorSender::Counts FloorSender::finish() const {
    Counts counts;
    if (!read_report(&counts, sizeof counts)) {
        throw TestFailure("the bare sender has failed");
    }
    if (counts.sends != counts.messages * players) {
        throw TestFailure("the bare sender made " + std::to_string(counts.sends) + " sends of " +
                          std::to_string(counts.messages) + " messages to " + std::to_string(players));
    }
    return counts;
}

Sleepers::Sleepers(const LoadOptions& load) : StandIn([&load](int) { sleep_forever(load.all_players()); }) {}

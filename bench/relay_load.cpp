// Loads the real server with one publisher and many players, in namespaces of its own, and reports what it
// cost: messages lost or damaged, how late they were, and server CPU per relayed gigabyte. The cost of merely
// sending the same bytes on this machine is measured in the same run, so that figures of two machines can be
// compared.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "bench/load_player.h"
#include "bench/stamped_media.h"
#include "tests/support/media_bytes.h"
#include "tests/support/private_namespaces.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned VIDEO_FRAMES_PER_SECOND = 30;

// Sends frames of the wanted rate in real time.
std::uint32_t publish_frames(RtmpClient& publisher, unsigned kbit_per_second, unsigned seconds) {
    const std::size_t frame_bytes = kbit_per_second * 125U / VIDEO_FRAMES_PER_SECOND;
    publisher.send_video(0, avc_header());
    const auto begin = Clock::now();
    const std::uint32_t frames = VIDEO_FRAMES_PER_SECOND * seconds;
    for (std::uint32_t i = 0; i < frames; ++i) {
        const auto due = std::chrono::milliseconds(i * 1000ULL / VIDEO_FRAMES_PER_SECOND);
        std::this_thread::sleep_until(begin + due);
        const FrameKind kind =
            i % VIDEO_FRAMES_PER_SECOND == 0 ? FrameKind::VIDEO_KEY : FrameKind::VIDEO_INTER;
        const auto media_ms = static_cast<std::uint32_t>(due.count()) + 1;
        publisher.send_video(media_ms, stamped_frame(kind, frame_bytes, {i, media_ms, now_us()}));
    }
    return frames;
}

// CPU seconds of a process that only sends so many bytes over loopback TCP, in pieces of a message's size.
double bare_send_cpu_seconds(std::uint64_t total_bytes, std::size_t piece_bytes) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t address_bytes = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &address_bytes) != 0) {
        throw std::runtime_error("cannot listen on the loopback");
    }
    const pid_t child = fork();
    if (child == 0) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const std::vector<char> piece(piece_bytes, 'x');
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            _exit(1);
        }
        for (std::uint64_t sent = 0; sent < total_bytes; sent += piece_bytes) {
            if (send(fd, piece.data(), piece.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(piece.size())) {
                _exit(1);
            }
        }
        _exit(0);
    }
    const int fd = accept(listener, nullptr, nullptr);
    std::vector<char> sink(1 << 18);
    while (recv(fd, sink.data(), sink.size(), 0) > 0) {
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    close(fd);
    close(listener);
    if (status != 0) {
        throw std::runtime_error("the bare sender failed");
    }
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Load {
    unsigned players = 120;
    unsigned seconds = 20;
    unsigned kbit_per_second = 4000;
    std::uint32_t chunk_bytes = 128;
};

class Players {
  public:
    Players(const Load& load) : epoll_fd(epoll_create1(0)) {
        for (unsigned i = 0; i < load.players; ++i) {
            players.push_back(std::make_unique<LoadPlayer>(handshaken_client(), "bench", load.chunk_bytes));
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.ptr = players.back().get();
            epoll_ctl(epoll_fd, EPOLL_CTL_ADD, players.back()->fd(), &event);
        }
    }
    ~Players() { close(epoll_fd); }

    // Serves the players until the condition holds or the time is over.
    template <typename Condition>
    bool serve_until(Condition condition, std::chrono::seconds at_most) {
        const auto deadline = Clock::now() + at_most;
        std::array<epoll_event, 64> events{};
        while (!condition()) {
            if (Clock::now() >= deadline) {
                return false;
            }
            const int ready = epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), 20);
            for (int i = 0; i < ready; ++i) {
                if (!static_cast<LoadPlayer*>(events[static_cast<std::size_t>(i)].data.ptr)
                         ->receive(buffer, tally)) {
                    throw std::runtime_error("the server closed a player's connection");
                }
            }
        }
        return true;
    }

    bool all_play() const {
        return std::all_of(players.begin(), players.end(), [](const auto& p) { return p->is_playing(); });
    }

    FrameTally tally;

  private:
    int epoll_fd;
    std::vector<std::unique_ptr<LoadPlayer>> players;
    std::vector<char> buffer = std::vector<char>(1 << 16);
};

int run(const Load& load) {
    ServerProcess server;
    std::printf("connecting %u players (chunk size %u)\n", load.players, load.chunk_bytes);
    Players players(load);
    if (!players.serve_until([&] { return players.all_play(); }, std::chrono::seconds(60))) {
        std::printf("FAILED: not every player got to play within 60 s\n");
        return 1;
    }
    std::printf("publishing %u kbit/s for %u s\n", load.kbit_per_second, load.seconds);
    std::fflush(stdout);
    RtmpClient publisher = publishing_client("bench");
    publisher.set_chunk_size(4096);
    players.tally = {};
    const auto cpu_before = server.cpu_time();
    std::atomic<std::uint32_t> frames = 0;
    std::thread sender([&] { frames = publish_frames(publisher, load.kbit_per_second, load.seconds); });
    const auto everything_arrived = [&] {
        return frames != 0 && players.tally.frames >= std::uint64_t{frames} * load.players;
    };
    players.serve_until(everything_arrived, std::chrono::seconds(load.seconds + 10));
    sender.join();
    const double cpu = static_cast<double>((server.cpu_time() - cpu_before).count()) / 1000;

    const FrameTally& tally = players.tally;
    const double gigabytes = static_cast<double>(tally.bytes) / 1e9;
    const std::uint64_t missing = std::uint64_t{frames} * load.players - tally.frames;
    const std::size_t piece = load.kbit_per_second * 125U / VIDEO_FRAMES_PER_SECOND;
    const double bare = bare_send_cpu_seconds(1000000000, piece);
    std::printf("frames published      %u\n", frames.load());
    std::printf("frames received       %llu by %u players; %llu lost, %llu damaged, %llu not arrived\n",
                static_cast<unsigned long long>(tally.frames), load.players,
                static_cast<unsigned long long>(tally.lost), static_cast<unsigned long long>(tally.damaged),
                static_cast<unsigned long long>(missing));
    std::printf("relayed               %.3f GB in %u s\n", gigabytes, load.seconds);
    std::printf("late by               %.0f ms median, %.0f ms 99th percentile, %.0f ms at most\n",
                tally.lateness.percentile_ms(0.5), tally.lateness.percentile_ms(0.99),
                tally.lateness.most_ms());
    std::printf("server CPU            %.2f s, %.0f %% of one core, %.2f s per GB\n", cpu,
                cpu / load.seconds * 100, cpu / gigabytes);
    std::printf("bare send             %.2f s per GB on this machine; the server takes %.1f times that\n",
                bare, cpu / gigabytes / bare);
    std::printf("server memory         %.1f MB resident\n", static_cast<double>(server.rss_kib()) / 1024);
    server.stop();
    return tally.lost == 0 && tally.damaged == 0 && missing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Load load;
    CLI::App app("Load of one publisher and many players on the server; exits 0 only if nothing was lost.");
    app.add_option("--players", load.players, "players")->capture_default_str()->check(CLI::Range(1, 127));
    app.add_option("--seconds", load.seconds, "seconds of media")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    app.add_option("--kbit", load.kbit_per_second, "rate of the stream in kbit/s")
        ->capture_default_str()
        ->check(CLI::Range(100, 100000));
    app.add_option("--chunk-size", load.chunk_bytes, "chunk size that the players ask for")
        ->capture_default_str()
        ->check(CLI::Range(1, 65536));
    CLI11_PARSE(app, argc, argv);
    try {
        enter_private_namespaces(argv);
        return run(load);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "relay_load: %s\n", error.what());
        return 1;
    }
}

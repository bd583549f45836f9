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
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/private_namespaces.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t AVC_TAG_BYTES = 5;
constexpr std::size_t STAMP_BYTES =
    12;  // sequence number and microseconds, behind the tag and again at the end
constexpr unsigned VIDEO_FRAMES_PER_SECOND = 30;

std::uint64_t now_us() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count());
}

struct Stamp {
    std::uint32_t sequence = 0;
    std::uint64_t sent_us = 0;
};

void put_stamp(char* d, const Stamp& stamp) {
    std::memcpy(d, &stamp.sequence, 4);
    std::memcpy(d + 4, &stamp.sent_us, 8);
}

Stamp get_stamp(const char* s) {
    Stamp stamp;
    std::memcpy(&stamp.sequence, s, 4);
    std::memcpy(&stamp.sent_us, s + 4, 8);
    return stamp;
}

struct Tally {
    std::uint64_t bytes = 0;
    std::uint64_t frames = 0;
    std::uint64_t lost = 0;
    std::uint64_t damaged = 0;
    std::vector<std::uint32_t> lateness_us;
};

// One player's end: takes chunks apart as they come, keeps no more of a message than is needed to check it.
class Player {
  public:
    Player(RtmpClient rtmp_client, std::uint32_t chunk_bytes)
        : client(std::move(rtmp_client)), wanted_chunk(chunk_bytes) {
        // Everything from here on is read by this class.
        if (wanted_chunk != chunk) {
            client.set_chunk_size(wanted_chunk);
        }
        client.send_connect("ombrex-output");
        client.send_create_stream();
        client.send_play("bench");
    }

    int fd() const { return client.descriptor(); }
    bool is_playing() const { return replies >= 3; }

    // Reads what is there; false at the end of the stream.
    bool receive(std::vector<char>& buffer, Tally& tally) {
        const ssize_t length = recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length <= 0) {
            return length < 0 && errno == EAGAIN;
        }
        tally.bytes += static_cast<std::uint64_t>(length);
        const char* s = buffer.data();
        const char* const sf = s + length;
        while (s < sf) {
            s = header_missing != 0 ? take_header(s, sf) : take_payload(s, sf, tally);
        }
        return true;
    }

  private:
    const char* take_header(const char* s, const char* sf) {
        const auto n = std::min(header_missing, static_cast<std::size_t>(sf - s));
        if (payload.empty()) {
            header.append(s, n);
        }
        header_missing -= n;
        if (header_missing == 0 && payload.empty() && begin_message()) {
            chunk_missing = std::min<std::size_t>(chunk, payload.size());
        }
        return s + n;
    }

    // False while the extended timestamp is still to come.
    bool begin_message() {
        const auto byte = [this](std::size_t i) { return static_cast<unsigned char>(header[i]); };
        if (header.size() == 12 && byte(1) == 0xFF && byte(2) == 0xFF && byte(3) == 0xFF) {
            header_missing = 4;
            return false;
        }
        payload.resize(static_cast<std::size_t>(byte(4)) << 16 | static_cast<std::size_t>(byte(5)) << 8 |
                       byte(6));
        done = 0;
        return true;
    }

    const char* take_payload(const char* s, const char* sf, Tally& tally) {
        const auto n = std::min(chunk_missing, static_cast<std::size_t>(sf - s));
        std::memcpy(payload.data() + done, s, n);
        done += n;
        chunk_missing -= n;
        if (chunk_missing == 0) {
            if (done == payload.size()) {
                finish_message(tally);
            } else {
                header_missing = 1;
                chunk_missing = std::min<std::size_t>(chunk, payload.size() - done);
            }
        }
        return s + n;
    }

    void finish_message(Tally& tally) {
        switch (header[7]) {
            case 1:
                chunk = wanted_chunk;
                break;
            case 9:
                check_frame(tally);
                break;
            case 20:
                ++replies;
                break;
            default:
                break;
        }
        header.clear();
        payload.clear();
        header_missing = 12;
    }

    void check_frame(Tally& tally) {
        const Stamp first = get_stamp(payload.data() + AVC_TAG_BYTES);
        const Stamp last = get_stamp(payload.data() + payload.size() - STAMP_BYTES);
        ++tally.frames;
        tally.damaged += first.sequence != last.sequence || first.sent_us != last.sent_us ? 1 : 0;
        tally.lost += first.sequence - next_sequence;
        next_sequence = first.sequence + 1;
        tally.lateness_us.push_back(static_cast<std::uint32_t>(now_us() - first.sent_us));
    }

    RtmpClient client;
    std::uint32_t chunk = 128;
    std::uint32_t wanted_chunk;
    int replies = 0;
    std::string header;
    std::size_t header_missing = 12;
    std::string payload;
    std::size_t done = 0;
    std::size_t chunk_missing = 0;
    std::uint32_t next_sequence = 0;
};

// Sends frames of the wanted rate in real time.
std::uint32_t publish_frames(RtmpClient& publisher, unsigned kbit_per_second, unsigned seconds) {
    const std::size_t frame_bytes = kbit_per_second * 125U / VIDEO_FRAMES_PER_SECOND;
    Bytes frame(frame_bytes, '\x5A');
    const auto begin = Clock::now();
    const std::uint32_t frames = VIDEO_FRAMES_PER_SECOND * seconds;
    for (std::uint32_t i = 0; i < frames; ++i) {
        const auto due = std::chrono::milliseconds(i * 1000ULL / VIDEO_FRAMES_PER_SECOND);
        std::this_thread::sleep_until(begin + due);
        const Bytes tag = from_hex(i % VIDEO_FRAMES_PER_SECOND == 0 ? "17 01 00 00 00" : "27 01 00 00 00");
        std::copy(tag.begin(), tag.end(), frame.begin());
        const Stamp stamp{i, now_us()};
        put_stamp(reinterpret_cast<char*>(frame.data()) + AVC_TAG_BYTES, stamp);
        put_stamp(reinterpret_cast<char*>(frame.data()) + frame.size() - STAMP_BYTES, stamp);
        publisher.send_video(static_cast<std::uint32_t>(due.count()) + 1, frame);
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

std::uint32_t percentile(std::vector<std::uint32_t>& values, double share) {
    const auto at = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return values[at];
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
            players.push_back(std::make_unique<Player>(handshaken_client(), load.chunk_bytes));
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
                if (!static_cast<Player*>(events[static_cast<std::size_t>(i)].data.ptr)
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

    Tally tally;

  private:
    int epoll_fd;
    std::vector<std::unique_ptr<Player>> players;
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

    Tally& tally = players.tally;
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
    if (!tally.lateness_us.empty()) {
        std::printf("late by               %.0f ms median, %.0f ms 99th percentile, %.0f ms at most\n",
                    percentile(tally.lateness_us, 0.5) / 1000.0, percentile(tally.lateness_us, 0.99) / 1000.0,
                    percentile(tally.lateness_us, 1.0) / 1000.0);
    }
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

// One thread that reads for all clients. It checks the frames of players. It discards the replies to
// publishers, because a client that never reads is another test. Its functions may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bench/journal.h"
#include "bench/load_player.h"

class Receiver {
  public:
    using Id = std::uint64_t;
    enum class Leave { CLOSE, RESET };

    explicit Receiver(Journal& failures);
    ~Receiver();
    // Stops reading.
    void stop();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // The server must not close this player's connection.
    Id add(LoadPlayer player, std::size_t stream_idx, Measure measure = Measure::LATENESS);
    // Closes the player's connection. Returns the number of the frame it would have received next, if known.
    std::optional<std::uint32_t> remove(Id id, Leave leave = Leave::CLOSE);
    // The descriptor must stay open as long as this object, and the server must not close it.
    void drain(int fd, const std::string& whose);

    std::size_t player_count() const;
    // Returns what the players have received since the last call.
    FrameTally take_tally();
    // Returns how many players have received nothing yet.
    std::size_t waiting() const;
    // Returns how many frames players have yet to receive. sent is the number of frames sent per stream.
    std::uint64_t missing(const std::vector<std::uint32_t>& sent) const;

  private:
    struct Player {
        LoadPlayer player;
        std::size_t stream_idx;
        Measure measure;
    };
    struct Drained {
        int fd;
        std::string whose;
    };

    Id watch(int fd);
    void unwatch(int fd) const;
    void run();
    void serve(Id id);
    void serve_player(Id id, Player& entry);
    void serve_drained(Id id, const Drained& entry);

    Journal& journal;
    int epoll_fd;
    std::vector<char> buffer = std::vector<char>(1 << 16);

    mutable std::mutex mutex;
    Id last_id = 0;
    std::map<Id, Player> players;
    std::map<Id, Drained> drained;
    FrameTally tally;

    std::atomic<bool> stop_requested{false};
    std::thread thread;
};

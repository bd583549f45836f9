// Dozens of visitors, each a thread that makes one visit after the other, and a thread that drops their
// connections through the control socket at random moments.
//
// Connections that exist before the crowd starts are not dropped.
#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/storm/visits.h"

struct CrowdOptions {
    std::uint64_t seed = 0;
    std::size_t visitors = 48;
    // No visit begins after this many connections have been opened; 0: visits continue until stop().
    std::size_t connections = 0;
    // The server may end at any moment, and another may replace it.
    bool server_may_go = false;
    // A thread drops arbitrary visitors, on any stream.
    bool drops_at_random = true;
};

class Crowd {
  public:
    explicit Crowd(const CrowdOptions& options);
    ~Crowd();
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    // Waits for the last visitor to leave. Throws the TestFailure of the first visit that failed.
    void wait();
    // Prevents further visits.
    void stop() { stop_requested = true; }

    // Call after wait().
    std::size_t opened() const { return connections_opened; }

  private:
    bool goes_on() const;
    void receive_visitor(std::uint64_t seed);
    void pay_visit(Random& random, ControlPeer& control);
    void drop_at_random(std::uint64_t seed);
    void drop_somebody(Random& random, ControlPeer& control);
    void note_failure(const std::string& what);
    // Runs the work with a control connection. Opens a new one after each failure that is permitted here.
    template <typename Work>
    void with_control(Random& random, Work work);

    const CrowdOptions options;
    std::set<std::string> left_alone;  // addresses
    std::atomic<bool> stop_requested{false};
    std::atomic<std::size_t> connections_opened{0};
    std::atomic<std::size_t> visits{0};
    std::mutex mutex;
    std::string failure;
    std::vector<std::thread> visitor_threads;
    std::thread dropper_thread;
};

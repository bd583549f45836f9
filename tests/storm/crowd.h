// Dozens of visitors, each a thread that makes one visit after another. Unless the server may go, another
// thread drops their connections through the control socket at random moments.
//
// Connections that exist before the crowd starts are not dropped.
#pragma once

#include <atomic>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "tests/storm/visits.h"

struct CrowdOptions {
    std::uint64_t seed = 0;
    // No visit begins after this many connections have been opened; 0: visits continue until the end.
    std::size_t connections = 0;
    // The server may end at any moment, and another may replace it.
    bool server_may_go = false;
};

class Crowd {
  public:
    explicit Crowd(const CrowdOptions& options);
    // Prevents further visits. The futures wait for the threads.
    ~Crowd() { stop_requested = true; }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    // Waits for the last visitor to leave and returns the number of connections opened. Throws the exception
    // of a visit that failed.
    std::size_t wait();

  private:
    using Deed = void (Crowd::*)(Random&, ControlPeer&);

    bool goes_on() const;
    // Repeats the deed with a control connection. Opens a new one after each failure that is permitted here.
    void keep_doing(Deed deed, std::uint64_t seed);
    void pay_visit(Random& random, ControlPeer& control);
    void drop_somebody(Random& random, ControlPeer& control);

    const CrowdOptions options;
    std::set<std::string> left_alone;  // addresses
    std::atomic<bool> stop_requested{false};
    std::atomic<std::size_t> connections_opened{0};
    std::atomic<std::size_t> visits{0};
    std::vector<std::future<void>> threads;
};

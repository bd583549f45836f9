// Visitors by the dozen, each a thread that pays one visit after the other, and somebody who drops
// connections of theirs through the control socket at moments that suit nobody.
//
// The connections that exist when the crowd comes are left alone.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/storm/visits.h"

struct CrowdOptions {
    std::uint64_t seed = 0;
    std::size_t visitors = 48;
    // No visit begins once so many connections have been opened; 0: until stop().
    std::size_t connections = 0;
    // The server may end at any moment, and another may take its place.
    bool server_may_go = false;
    // Somebody drops visitors who have not asked for it, whatever stream they are at.
    bool drops_at_random = true;
};

class Crowd {
  public:
    explicit Crowd(const CrowdOptions& options);
    ~Crowd();
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    // Waits for the last visitor to leave. Throws TestFailure for the first visit that met what it must not.
    void wait();
    // Lets no further visit begin.
    void stop() { stop_requested = true; }

    // After wait().
    std::size_t opened() const { return connections_opened; }
    // Visits by where they were ended, and by how.
    std::map<std::string, std::size_t> points() const { return visits_by_point; }
    std::map<std::string, std::size_t> ends() const { return visits_by_end; }

  private:
    bool goes_on() const;
    void receive_visitor(std::uint64_t seed);
    void pay_visit(Random& random, ControlPeer& control);
    void drop_at_random(std::uint64_t seed);
    void drop_somebody(Random& random, ControlPeer& control);
    void note_visit(const std::string& point, const std::string& end);
    void note_failure(const std::string& what);
    // Runs the work with a control connection, a new one after each failure that is none here.
    template <typename Work>
    void with_control(Random& random, Work work);

    const CrowdOptions options;
    std::set<std::string> left_alone;  // addresses
    std::atomic<bool> stop_requested{false};
    std::atomic<std::size_t> connections_opened{0};
    std::atomic<std::size_t> visits{0};
    std::mutex mutex;
    std::map<std::string, std::size_t> visits_by_point;
    std::map<std::string, std::size_t> visits_by_end;
    std::string failure;
    std::vector<std::thread> visitor_threads;
    std::thread dropper_thread;
};

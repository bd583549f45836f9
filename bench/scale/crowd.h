// Publishers and players that connect again when they have lost their connection, each on a thread of its
// own. What happens to them is printed as lines of JSON on standard output.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bench/lateness.h"
#include "bench/scale/film.h"
#include "tests/support/rtmp_client.h"

// Prints a line of JSON on standard output. Any thread may call it.
void print_line(const nlohmann::json& object);

// Prints one line: the time in seconds by CLOCK_MONOTONIC, who, what happened, and details.
void print_event(const std::string& who, const std::string& what,
                 nlohmann::json more = nlohmann::json::object());

// Runs steps on a thread until it is stopped. After a step, whether it failed or not, it pauses.
class Repeater {
  public:
    Repeater() = default;
    virtual ~Repeater() = default;
    Repeater(const Repeater&) = delete;
    Repeater& operator=(const Repeater&) = delete;
    // Returns at once; the destructor waits.
    void ask_to_stop() { stop_requested = true; }

  protected:
    void start(const std::string& name, Milliseconds pause_between);
    // Must be called by the destructor of the class that defines step().
    void stop();
    bool is_stopped() const { return stop_requested; }
    virtual void step() = 0;

    std::string who;

  private:
    void run();

    Milliseconds pause{0};
    std::atomic<bool> stop_requested{false};
    std::thread thread;
};

// Sends the film in real time, from its beginning whenever it has connected. Every skip_frame-th frame is
// numbered but not sent, to prove that players notice; 0 for none.
class FilmPublisher : public Repeater {
  public:
    FilmPublisher(const std::string& name, std::string stream, const ClientOptions& options,
                  const Film& film_to_send, SentFrames& sent_frames, std::uint32_t skip_every);
    ~FilmPublisher() override { stop(); }

  private:
    void step() override;
    void send_frames(RtmpClient& client);

    const std::string stream_name;
    const ClientOptions client_options;
    const Film& film;
    SentFrames& sent;
    const std::uint32_t skip_frame;
};

// What players have received.
struct CrowdTally {
    std::uint64_t frames = 0;
    std::uint64_t missing = 0;  // gaps within a connection
    std::uint64_t strange = 0;  // frames that no publisher has sent
    Lateness lateness;

    void merge(const CrowdTally& other);
};

class FilmPlayer : public Repeater {
  public:
    FilmPlayer(const std::string& name, std::string stream, const ClientOptions& options,
               const SentFrames& sent_frames, Milliseconds pause_between);
    ~FilmPlayer() override { stop(); }

    // Whether a frame has arrived within the last second.
    bool is_playing() const;
    // Returns what it has received since the last call.
    CrowdTally take_tally();

  private:
    void step() override;
    void take_frame(const RtmpMessage& message, std::map<std::uint8_t, std::uint32_t>& next);

    const std::string stream_name;
    const ClientOptions client_options;
    const SentFrames& sent;
    std::atomic<std::uint64_t> last_frame_us{0};
    std::mutex mutex;
    CrowdTally tally;
};

// A log that is read slowly, and a client that makes the server log as much as possible. Another stream
// continues, and the server can be stopped.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/large_values.h"
#include "tests/support/live_pair.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t LOG_BYTES_PER_MS = 50000;  // 50 MB/s
constexpr std::size_t LEVELS = 1150;
// 3 s of the stream during the attack.
constexpr std::size_t MESSAGES_MEANWHILE = 75;
// Includes up to 10 ms until the main loop wakes up and up to 50 ms until the player's writer does.
constexpr Milliseconds LATENESS = scaled(Milliseconds{250}) - QUIET_LATENCY;
constexpr Milliseconds LONGEST_STOP = scaled(Milliseconds{1000});

// A server's standard error, as a named pipe that is read at LOG_BYTES_PER_MS.
class SlowLog {
  public:
    SlowLog() : fd(open_pipe()), reader([this] { read_slowly(); }) {}
    ~SlowLog() {
        stop_requested = true;
        reader.join();
        close(fd);
        unlink(PATH);
    }
    SlowLog(const SlowLog&) = delete;
    SlowLog& operator=(const SlowLog&) = delete;

    static ServerOptions options() {
        ServerOptions result;
        result.stderr_file = PATH;
        return result;
    }

    std::size_t bytes_read() const { return taken; }

  private:
    static constexpr const char* PATH = "/run/slow_log";

    static int open_pipe() {
        checked(mkfifo(PATH, 0600), "mkfifo");
        return checked(open(PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC), PATH);
    }

    void read_slowly() {
        std::string buffer(65536, '\0');
        TimePoint next = SteadyClock::now();
        while (!stop_requested) {
            std::this_thread::sleep_until(next);
            pollfd entry{fd, POLLIN, 0};
            const ssize_t count =
                poll(&entry, 1, 10) == 1 ? read(fd, buffer.data(), buffer.size()) : ssize_t{0};
            const std::size_t bytes = count > 0 ? static_cast<std::size_t>(count) : 0;
            taken += bytes;
            // Unused reading time is not saved up for later.
            next = SteadyClock::now() + std::chrono::microseconds(bytes * 1000 / LOG_BYTES_PER_MS + 1);
        }
    }

    const int fd;
    std::atomic<std::size_t> taken{0};
    std::atomic<bool> stop_requested{false};
    std::thread reader;
};

// Sends one connect after another on its own thread, each of which makes the server print a dump of the
// largest size. Replaces a connection that the server closes.
class FloodOfConnects {
  public:
    explicit FloodOfConnects(const std::string& app)
        : connect(amf_string("connect") + amf_number(1) +
                  amf_object({{"app", amf_string(app)}, {"nest", open_nest(LEVELS)}})),
          sender([this] { send_all(); }) {}
    ~FloodOfConnects() {
        stop_requested = true;
        sender.join();
    }
    FloodOfConnects(const FloodOfConnects&) = delete;
    FloodOfConnects& operator=(const FloodOfConnects&) = delete;

  private:
    void send_all() {
        while (!stop_requested) {
            try {
                RtmpClient client = handshaken_client();
                const Bytes message =
                    chunked({.type = MSG_COMMAND, .payload = connect, .csid = 3}, client.send_chunk_size());
                while (!stop_requested && client.try_send_bytes(message)) {
                }
            } catch (const std::exception&) {
                // The server is closing this connection, or has ended.
            }
        }
    }

    const Bytes connect;
    std::atomic<bool> stop_requested{false};
    std::thread sender;
};

void expect_relay_in_time_during_connects_to(const std::string& app) {
    const SlowLog log;
    ServerProcess server(SlowLog::options());
    LivePair beside;
    const FloodOfConnects flood(app);
    beside.wait_for_more(MESSAGES_MEANWHILE);
    const std::size_t printed = log.bytes_read();
    beside.finish();
    const Milliseconds stop_time = server.stop();
    std::cout << "a message was up to " << beside.lateness().count() << " ms late and the stop took "
              << stop_time.count() << " ms\n";
    EXPECT_LT(beside.lateness(), LATENESS);
    EXPECT_LT(stop_time, LONGEST_STOP);
    EXPECT_GT(printed, 20U << 20) << "the log was not kept busy";
}

}  // namespace

TEST(slow_log, connects_that_print_much_and_are_refused_do_not_stop_another_stream) {
    expect_relay_in_time_during_connects_to("another");
}

TEST(slow_log, connects_that_print_much_and_are_accepted_do_not_stop_another_stream) {
    expect_relay_in_time_during_connects_to("ombrex-live");
}

// Clients of the control socket that behave as badly as they can, beside one that behaves and a stream that plays:
// the answers and the stream stay in time.
#include "tests/support/control_peer.h"
#include "tests/support/media_bytes.h"
#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::IsEmpty;

const std::string LIST = "list connections";
constexpr std::uint64_t FLOOD_REQUESTS = 10000;
// More than fit into the socket: some of them waited at the server.
constexpr std::uint64_t FLOOD_ANSWERS = 700;
// What the system grants at most; all the requests are to be on their way at once.
constexpr int FLOOD_SEND_BUFFER_BYTES = 1 << 20;

// 4 Mbit/s at 25 messages a second.
constexpr std::size_t MESSAGE_BYTES = 20000;
constexpr Milliseconds MESSAGE_INTERVAL{40};
// A service of the control socket follows the other after 100 ms.
constexpr Milliseconds ANSWER_TIME = scaled(Milliseconds{300});
// What a message takes when nothing disturbs: up to 10 ms until the main loop looks, and up to 50 ms until the
// player's writer does. Only what comes on top is late.
constexpr Milliseconds QUIET_LATENCY{60};
constexpr Milliseconds LATENESS = scaled(Milliseconds{150});
constexpr Milliseconds QUIET_TIME{1500};
constexpr Milliseconds FLOOD_TIME{6000};

// Runs a loop body on a thread until it goes; what the body throws is kept for the test.
class Background {
  public:
    template <typename Body>
    explicit Background(Body body) : thread([this, body] { run(body); }) {}
    ~Background() { stop(); }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    void stop() {
        stop_requested = true;
        if (thread.joinable()) {
            thread.join();
        }
    }
    // After stop().
    const std::string& failure() const { return failure_text; }

  private:
    template <typename Body>
    void run(const Body& body) {
        try {
            while (!stop_requested) {
                body();
            }
        } catch (const std::exception& error) {
            failure_text = error.what();
        }
    }

    std::atomic<bool> stop_requested{false};
    std::string failure_text;
    std::thread thread;
};

// A stream whose messages are timed from the moment they are sent until the player has them.
class TimedStream {
  public:
    TimedStream() : player(playing_client("live")), publisher(publishing_client("live")), recorder(player) {
        publisher.set_chunk_size(65536);
        player.set_chunk_size(65536);
    }

    // Sends in real time, on the calling thread, and returns the longest that a message took.
    Milliseconds run_for(Milliseconds duration) {
        const std::size_t first = send_times.size();
        const TimePoint end = SteadyClock::now() + duration;
        while (SteadyClock::now() < end) {
            std::this_thread::sleep_until(start + MESSAGE_INTERVAL * send_times.size());
            const auto idx = static_cast<std::uint32_t>(send_times.size());
            const Bytes payload = avc_inter_frame(idx, MESSAGE_BYTES);
            const auto media_time =
                static_cast<std::uint32_t>((MESSAGE_INTERVAL * send_times.size()).count());
            send_times.push_back(SteadyClock::now());
            publisher.send_video(1000 + media_time, payload);
        }
        recorder.wait_for_type(send_times.size(), MSG_VIDEO);
        return longest_since(first);
    }

  private:
    Milliseconds longest_since(std::size_t first) const {
        const std::vector<RtmpMessage> received = recorder.messages_of_type(MSG_VIDEO);
        if (received.size() != send_times.size()) {
            throw TestFailure("the player has more messages than were sent");
        }
        SteadyClock::duration longest{0};
        for (std::size_t i = first; i < received.size(); ++i) {
            if (received[i].payload != avc_inter_frame(static_cast<std::uint32_t>(i), MESSAGE_BYTES)) {
                throw TestFailure("message " + std::to_string(i) + " is not what was published");
            }
            longest = std::max(longest, received[i].arrival - send_times[i]);
        }
        return std::chrono::ceil<Milliseconds>(longest);
    }

    RtmpClient player;
    RtmpClient publisher;
    MessageRecorder recorder;
    const TimePoint start = SteadyClock::now();
    std::vector<TimePoint> send_times;
};

Milliseconds lateness(Milliseconds latency) {
    return std::max(latency - QUIET_LATENCY, Milliseconds{0});
}

// Asks one thing after the other, each as soon as the last is answered.
class Asker {
  public:
    void ask_once() {
        const TimePoint start = SteadyClock::now();
        const ControlReply reply = peer.ask(LIST);
        const auto took = std::chrono::ceil<Milliseconds>(SteadyClock::now() - start);
        if (reply.status != CONTROL_SUCCESS || reply.values("connection").size() != 2) {
            throw TestFailure("the list has " + std::to_string(reply.values("connection").size()) + " lines");
        }
        longest = std::max(longest, took);
        ++answers;
    }

    Milliseconds longest{0};
    std::size_t answers = 0;

  private:
    ControlPeer peer;
};

// Has ten thousand questions and reads no answer.
class Flood {
  public:
    Flood() {
        for (std::uint64_t id = 1; id <= FLOOD_REQUESTS; ++id) {
            requests += control_request(id, LIST);
        }
    }

    void send_on() {
        sent_bytes += peer.send_some(std::string_view(requests).substr(sent_bytes));
        std::this_thread::sleep_for(Milliseconds{5});
    }

    bool is_sent() const { return sent_bytes == requests.size(); }

    // At the end after all: the answers to the first questions.
    void read_first_answers(std::uint64_t count) {
        for (std::uint64_t id = 1; id <= count; ++id) {
            if (peer.read_reply().request_id != id) {
                throw TestFailure("answer " + std::to_string(id) + " is to another question");
            }
        }
    }

  private:
    Bytes requests;
    std::size_t sent_bytes = 0;
    ControlPeer peer{CONTROL_SOCKET_PATH, FLOOD_SEND_BUFFER_BYTES};
};

// What no honest client sends; each costs the one who sends it his connection, and some only in time.
class GarbageSource {
  public:
    static constexpr std::size_t KINDS = 8;

    Bytes next() {
        switch (kind++ % KINDS) {
            case 0:
                return noise(1 + random() % 100);
            case 1:
                return noise(200000);
            case 2:
                return control_frame(noise(100));
            case 3:
                return control_frame(noise(100), 3);
            case 4:
                return bytes_of({'C', 'S', 4, 0}) + be32(2097153) + noise(1000);
            case 5:
                return bytes_of({'C', 'S', 4, 0}) + be32(0xFFFFFFFF) + noise(100000);
            case 6:
                return control_request(1, "hello", ControlArguments(65, "x"));
            default:
                return control_request(1, LIST) + noise(50);
        }
    }

  private:
    // Never the beginning of a frame.
    Bytes noise(std::size_t length) {
        Bytes bytes(length, '\0');
        std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(random()); });
        bytes[0] = 'X';
        return bytes;
    }

    std::mt19937 random{20240229};
    std::size_t kind = 0;
};

// Reads what there is, replies included, until the server has closed.
void expect_end(ControlPeer& peer) {
    try {
        while (true) {
            (void)peer.read_reply();
        }
    } catch (const TestFailure& failure) {
        const std::string text = failure.what();
        if (text.find("closed the control connection") == std::string::npos) {
            throw;
        }
    }
}

}  // namespace

TEST(control_flood, a_client_that_never_reads_and_one_that_sends_garbage_delay_neither_answers_nor_media) {
    ServerProcess server;
    TimedStream stream;
    const Milliseconds quiet = stream.run_for(QUIET_TIME);
    const LineMark mark = server.mark();

    Flood flood;
    GarbageSource garbage;
    std::size_t thrown_out = 0;
    Asker asker;
    const TimePoint start = SteadyClock::now();
    Background flooding([&] { flood.send_on(); });
    Background throwing_garbage([&] {
        ControlPeer peer;
        (void)peer.try_send_bytes(garbage.next());
        expect_end(peer);
        ++thrown_out;
    });
    Background asking([&] { asker.ask_once(); });
    const Milliseconds disturbed = stream.run_for(FLOOD_TIME);
    for (Background* background : {&flooding, &throwing_garbage, &asking}) {
        background->stop();
        EXPECT_EQ(background->failure(), "");
    }
    const Milliseconds flood_time = elapsed_since(start);

    EXPECT_LE(asker.longest, ANSWER_TIME);
    EXPECT_LE(lateness(disturbed), LATENESS);
    // It all happened at the same time.
    EXPECT_GE(asker.answers, static_cast<std::size_t>(flood_time / ANSWER_TIME));
    EXPECT_GE(thrown_out, GarbageSource::KINDS);
    EXPECT_TRUE(flood.is_sent());
    EXPECT_NO_THROW(flood.read_first_answers(FLOOD_ANSWERS));
    EXPECT_THAT(server.lines_since(mark), IsEmpty());

    RecordProperty("longest_answer_ms", static_cast<int>(asker.longest.count()));
    RecordProperty("answers", static_cast<int>(asker.answers));
    RecordProperty("lateness_ms", static_cast<int>(lateness(disturbed).count()));
    RecordProperty("latency_quiet_ms", static_cast<int>(quiet.count()));
    RecordProperty("latency_disturbed_ms", static_cast<int>(disturbed.count()));
    std::cout << "longest of " << asker.answers << " answers: " << asker.longest.count()
              << " ms; lateness of media: " << lateness(disturbed).count() << " ms (longest way "
              << disturbed.count() << " ms, without the flood " << quiet.count() << " ms); " << thrown_out
              << " clients thrown out\n";
}

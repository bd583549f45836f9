// Clients of the control socket that behave as badly as possible, next to a well-behaved one and a playing
// stream: the replies and the stream stay on time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/background.h"
#include "tests/support/control_peer.h"
#include "tests/support/live_pair.h"
#include "tests/support/long_names.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

using testing::IsEmpty;

const std::string LIST = "list connections";
constexpr std::uint64_t FLOOD_REQUESTS = 10000;
// More than fit into the socket, so some were queued in the server.
constexpr std::uint64_t FLOOD_ANSWERS = 700;
// The largest buffer the system grants, so that all requests are in transit at once.
constexpr int FLOOD_SEND_BUFFER_BYTES = 1 << 20;

// The control socket is polled every 100 ms.
constexpr Milliseconds ANSWER_TIME = scaled(Milliseconds{300});
constexpr Milliseconds LATENESS = scaled(Milliseconds{150});
// Thirty polls of the control socket.
constexpr Milliseconds FLOOD_TIME{3000};

// Sends one request after another, each as soon as the previous one is answered.
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

// Times single requests, each from a new client, like the tool.
struct HelloTimes {
    void ask_for(Milliseconds duration) {
        for (const TimePoint end = SteadyClock::now() + duration; SteadyClock::now() < end;) {
            const TimePoint start = SteadyClock::now();
            if (ControlPeer().ask("hello").message != "How are you?") {
                throw TestFailure("hello was answered with something else");
            }
            longest = std::max(longest, std::chrono::ceil<Milliseconds>(SteadyClock::now() - start));
            ++count;
        }
    }
    std::string text() const {
        return "longest of " + std::to_string(count) + " hellos: " + std::to_string(longest.count()) + " ms";
    }

    Milliseconds longest{0};
    std::size_t count = 0;
};

// Sends ten thousand requests and reads no reply.
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

    // Finally reads the replies to the first requests.
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

// Invalid input. Each kind costs the sender its connection, some only after a while.
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
    // Returns noise that is never the beginning of a frame.
    Bytes noise(std::size_t length) {
        Bytes bytes(length, '\0');
        std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(random()); });
        bytes[0] = 'X';
        return bytes;
    }

    std::mt19937 random{20240229};
    std::size_t kind = 0;
};

// Reads everything, including replies, until the server has closed.
void expect_end(ControlPeer& peer) {
    try {
        while (true) {
            (void)peer.read_reply();
        }
    } catch (const TestFailure&) {
        if (!peer.closed_by_server()) {
            throw;
        }
    }
}

}  // namespace

TEST(control_flood, a_client_that_never_reads_and_one_that_sends_garbage_delay_neither_replies_nor_media) {
    ServerProcess server;
    LivePair live(PICTURES);
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
    live.wait_for_more(FLOOD_TIME / PICTURES.interval);
    live.finish();
    for (Background* background : {&flooding, &throwing_garbage, &asking}) {
        background->stop();
        EXPECT_EQ(background->failure(), "");
    }
    const Milliseconds flood_time = elapsed_since(start);

    EXPECT_LE(asker.longest, ANSWER_TIME);
    EXPECT_LE(live.lateness(), LATENESS);
    // It all happened at the same time.
    EXPECT_GE(asker.answers, static_cast<std::size_t>(flood_time / ANSWER_TIME));
    EXPECT_GE(thrown_out, GarbageSource::KINDS);
    EXPECT_TRUE(flood.is_sent());
    EXPECT_NO_THROW(flood.read_first_answers(FLOOD_ANSWERS));
    EXPECT_THAT(server.lines_since(mark), IsEmpty());

    RecordProperty("longest_answer_ms", static_cast<int>(asker.longest.count()));
    RecordProperty("answers", static_cast<int>(asker.answers));
    RecordProperty("lateness_ms", static_cast<int>(live.lateness().count()));
    std::cout << "longest of " << asker.answers << " answers: " << asker.longest.count()
              << " ms; lateness of media: " << live.lateness().count() << " ms; " << thrown_out
              << " clients thrown out\n";
}

TEST(control_flood, sixty_clients_that_never_read_a_long_list_do_not_delay_hello) {
    ServerProcess server;
    const std::vector<RtmpClient> publishers = publishers_with_long_names(6, 1000000);
    LivePair live(PICTURES);
    std::vector<ControlPeer> never_readers(60);
    for (ControlPeer& peer : never_readers) {
        peer.send_bytes(control_request(1, LIST));
    }
    HelloTimes hellos;
    hellos.ask_for(FLOOD_TIME);
    live.finish();
    EXPECT_LE(hellos.longest, scaled(Milliseconds{500}));
    EXPECT_LE(live.lateness(), LATENESS);
    // More of them were answered than the server's bound on waiting bytes has room for.
    EXPECT_GT(std::count_if(never_readers.begin(), never_readers.end(),
                            [](const ControlPeer& peer) { return peer.has_unread_bytes(); }),
              11);
    std::cout << hellos.text() << "; lateness of media: " << live.lateness().count() << " ms; "
              << server.rss_kib() / 1024 << " MiB\n";
}

TEST(control_flood, sixty_clients_that_send_long_requests_do_not_delay_hello) {
    ServerProcess server;
    LivePair live(PICTURES);
    const Bytes request = control_request(1, "hello", {std::string(2000000, 'x')});
    std::vector<ControlPeer> senders(60);
    std::vector<std::size_t> sent(senders.size());
    std::size_t sent_bytes = 0;
    Background sending([&] {
        for (std::size_t i = 0; i < senders.size(); ++i) {
            const std::size_t more = senders[i].send_some(std::string_view(request).substr(sent[i]));
            sent[i] = (sent[i] + more) % request.size();
            sent_bytes += more;
        }
        std::this_thread::sleep_for(Milliseconds{2});
    });
    HelloTimes hellos;
    hellos.ask_for(FLOOD_TIME);
    live.finish();
    sending.stop();
    EXPECT_EQ(sending.failure(), "");
    EXPECT_GT(sent_bytes, senders.size() * request.size()) << "one whole request from each, on average";
    EXPECT_LE(hellos.longest, ANSWER_TIME);
    EXPECT_LE(live.lateness(), LATENESS);
    std::cout << hellos.text() << "; lateness of media: " << live.lateness().count() << " ms\n";
}

TEST(control_flood, clients_that_ask_and_leave_as_fast_as_they_can_do_not_lock_out_others) {
    ServerProcess server;
    LivePair live(PICTURES);
    const Bytes request = control_request(1, "hello", {}, CONTROL_REQUEST | CONTROL_ASYNC);
    std::size_t left = 0;
    Background leaving([&] {
        ControlPeer leaver;
        leaver.send_bytes(request);
        ++left;
    });
    HelloTimes hellos;
    const TimePoint start = SteadyClock::now();
    hellos.ask_for(FLOOD_TIME);
    live.finish();
    leaving.stop();
    EXPECT_EQ(leaving.failure(), "");
    EXPECT_GE(hellos.count, static_cast<std::size_t>(FLOOD_TIME / Milliseconds{300}));
    EXPECT_GE(left, 1000U) << "too few to take all places again and again";
    EXPECT_LE(live.lateness(), LATENESS);
    std::cout << hellos.text() << " beside "
              << left * 1000 / static_cast<std::size_t>(elapsed_since(start).count())
              << " clients a second; lateness of media: " << live.lateness().count() << " ms\n";
}

TEST(control_flood, a_client_that_reads_a_long_list_byte_by_byte_does_not_delay_media) {
    ServerProcess server;
    const std::vector<RtmpClient> publishers = publishers_with_long_names(10, 1000000);
    LivePair live(PICTURES);
    ControlPeer slow;
    slow.send_bytes(control_request(1, LIST));
    timeval limit{};
    limit.tv_sec = 10;
    checked(setsockopt(slow.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), "setsockopt");
    char byte = 0;
    Background reading([&] {
        if (recv(slow.descriptor(), &byte, 1, 0) != 1) {
            throw TestFailure("the next byte of the list did not come");
        }
    });
    live.wait_for_more(FLOOD_TIME / PICTURES.interval);
    live.finish();
    reading.stop();
    EXPECT_EQ(reading.failure(), "");
    EXPECT_LE(live.lateness(), LATENESS);
    std::cout << "lateness of media: " << live.lateness().count() << " ms\n";
}

// Tests the client's end with the library's own server, and with a plain socket that misbehaves.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "comm_socket/include/comm_socket_v4.h"
#include "tests/comm_socket/fake_clock.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

constexpr std::uint64_t PATIENT_US = 10000000;
constexpr std::uint64_t SHORT_US = 50000;
constexpr std::uint64_t SECOND_US = 1000000;

// A listening socket whose clients the test accepts by hand. It knows nothing of frames.
class RawListener {
  public:
    explicit RawListener(const std::string& path, int backlog = 5)
        : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd, backlog), 0);
    }
    ~RawListener() { close(fd); }
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;
    [[nodiscard]] RawPeer accept_one() const { return RawPeer(accept(fd, nullptr, nullptr)); }
    int fd;
};

class client_test : public testing::Test {
  public:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");

    [[nodiscard]] Connection connected() const {
        comm_socket_v4_error error = COMM_SOCKET_V4_SYSTEM;
        Connection connection(comm_socket_v4_connect(path.c_str(), PATIENT_US, &error));
        EXPECT_EQ(error, COMM_SOCKET_V4_OK);
        return connection;
    }
    [[nodiscard]] comm_socket_v4_error connect_error(const std::string& where,
                                                     std::uint64_t timeout_us = SHORT_US) const {
        comm_socket_v4_error error = COMM_SOCKET_V4_OK;
        EXPECT_EQ(comm_socket_v4_connect(where.c_str(), timeout_us, &error), nullptr);
        return error;
    }
};

// Tests of a connection to a raw server.
class raw_server_test : public client_test {
  public:
    RawListener listener{path};
    Connection connection = connected();
    RawPeer server = listener.accept_one();

    comm_socket_v4_error wait(std::uint64_t id, Packet* reply, std::uint64_t timeout_us = PATIENT_US) const {
        comm_socket_v4_packet* received = nullptr;
        const comm_socket_v4_error error =
            comm_socket_v4_wait_reply(connection.get(), id, timeout_us, &received);
        reply->reset(received);
        EXPECT_EQ(error == COMM_SOCKET_V4_OK, received != nullptr);
        return error;
    }

    comm_socket_v4_error wait_within(std::uint64_t id, std::uint64_t silence_us, std::uint64_t total_us,
                                     Packet* reply) const {
        comm_socket_v4_packet* received = nullptr;
        const comm_socket_v4_error error =
            comm_socket_v4_wait_reply_within(connection.get(), id, silence_us, total_us, &received);
        reply->reset(received);
        EXPECT_EQ(error == COMM_SOCKET_V4_OK, received != nullptr);
        return error;
    }
};

// Sends a byte a second: once a byte has been read, the clock advances and the next byte follows at once.
class DrippingServer {
  public:
    DrippingServer(const RawPeer& server, std::string bytes)
        : thread([&server, dripped = std::move(bytes)](const std::stop_token& stop) {
              for (const char byte : dripped) {
                  server.send_all(std::string(1, byte));
                  while (server.has_unread_bytes()) {
                      if (stop.stop_requested()) {
                          return;
                      }
                      std::this_thread::yield();
                  }
                  put_clock_forward(SECOND_US);
              }
          }) {}

  private:
    std::jthread thread;
};

// The first bytes of a frame, up to and including its id.
constexpr std::size_t BYTES_TO_ID = 20;

}  // namespace

TEST_F(client_test, calls_the_server_and_reads_the_reply) {
    const EchoServer server(path);
    const Connection connection = connected();
    const Packet request = make_request("echo", {"one", std::nullopt, "", "two"});
    comm_socket_v4_packet* received = nullptr;
    ASSERT_EQ(comm_socket_v4_call(connection.get(), request.get(), PATIENT_US, &received), COMM_SOCKET_V4_OK);
    const Packet reply(received);
    EXPECT_EQ(reply->request_id, request->request_id);
    EXPECT_EQ(reply->flags, 0u);
    EXPECT_EQ(reply->status, COMM_SOCKET_V4_STATUS_SUCCESS);
    EXPECT_STREQ(comm_socket_v4_packet_get_command(reply.get()), "echo");
    EXPECT_STREQ(comm_socket_v4_packet_get_message(reply.get()), "How are you?");
    Pairs pairs;
    for (std::size_t i = 0; i < comm_socket_v4_packet_get_pair_count(reply.get()); ++i) {
        pairs.emplace_back(comm_socket_v4_packet_get_pair_name(reply.get(), i),
                           comm_socket_v4_packet_get_pair_value(reply.get(), i));
    }
    EXPECT_EQ(pairs, (Pairs{{"argument", "one"}, {"absent", ""}, {"argument", ""}, {"argument", "two"}}));
}

TEST_F(client_test, an_error_status_is_a_reply_like_any_other) {
    const EchoServer server(path);
    const Connection connection = connected();
    const Packet request = make_request("no such thing");
    comm_socket_v4_packet* received = nullptr;
    ASSERT_EQ(comm_socket_v4_call(connection.get(), request.get(), PATIENT_US, &received), COMM_SOCKET_V4_OK);
    const Packet reply(received);
    EXPECT_EQ(reply->status, COMM_SOCKET_V4_STATUS_ERROR);
}

TEST_F(client_test, several_requests_may_be_in_progress) {
    const EchoServer server(path);
    const Connection connection = connected();
    for (std::uint64_t id = 1; id <= 200; ++id) {
        const Packet request = make_request("echo", {std::to_string(id)});
        ASSERT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), PATIENT_US),
                  COMM_SOCKET_V4_OK);
        EXPECT_EQ(request->request_id, id);
    }
    for (std::uint64_t id = 1; id <= 200; ++id) {
        comm_socket_v4_packet* received = nullptr;
        ASSERT_EQ(comm_socket_v4_wait_reply(connection.get(), id, PATIENT_US, &received), COMM_SOCKET_V4_OK);
        const Packet reply(received);
        EXPECT_EQ(comm_socket_v4_packet_get_pair_value(reply.get(), 0), std::to_string(id));
    }
}

TEST_F(client_test, an_async_request_is_sent_without_waiting) {
    const EchoServer server(path);
    const Connection connection = connected();
    const Packet async = make_request("hello");
    comm_socket_v4_packet_set_async(async.get(), 1);
    comm_socket_v4_packet* received = async.get();
    EXPECT_EQ(comm_socket_v4_call(connection.get(), async.get(), PATIENT_US, &received), COMM_SOCKET_V4_OK);
    EXPECT_EQ(received, nullptr);
    received = async.get();
    EXPECT_EQ(comm_socket_v4_call_within(connection.get(), async.get(), PATIENT_US, PATIENT_US, &received),
              COMM_SOCKET_V4_OK);
    EXPECT_EQ(received, nullptr);
    const Packet request = make_request("hello");
    ASSERT_EQ(comm_socket_v4_call(connection.get(), request.get(), PATIENT_US, &received), COMM_SOCKET_V4_OK);
    EXPECT_EQ(received->request_id, 3u);
    comm_socket_v4_packet_release(received);
}

TEST_F(client_test, a_request_at_the_limit_is_sent_and_a_larger_one_is_not) {
    const EchoServer server(path);
    const Connection connection = connected();
    comm_socket_v4_packet* received = nullptr;
    const Packet beyond = make_request("echo", {std::string(2097152 - 36 - 4 - 4 + 1, 'a')});
    EXPECT_EQ(comm_socket_v4_call(connection.get(), beyond.get(), PATIENT_US, &received),
              COMM_SOCKET_V4_TOO_LARGE);
    const Packet pairs = make_request("echo");
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(pairs.get(), 0, "echo", ""), 0);
    for (int i = 0; i < 65; ++i) {
        ASSERT_EQ(comm_socket_v4_packet_write_nv_pair(pairs.get(), "n", "v"), 0);
    }
    ASSERT_EQ(comm_socket_v4_packet_write_end(pairs.get()), 0);
    EXPECT_EQ(comm_socket_v4_call(connection.get(), pairs.get(), PATIENT_US, &received),
              COMM_SOCKET_V4_TOO_LARGE);
    const Packet limit = make_request("echo", {std::string(2097152 - 36 - 4 - 4, 'a')});
    ASSERT_EQ(comm_socket_v4_call(connection.get(), limit.get(), PATIENT_US, &received), COMM_SOCKET_V4_OK);
    const Packet reply(received);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_value_length(reply.get(), 0), 2097152u - 36 - 4 - 4);
    EXPECT_EQ(reply->request_id, 1u) << "what was not sent used no id";
}

TEST_F(client_test, reports_why_it_could_not_connect) {
    EXPECT_EQ(connect_error(path), COMM_SOCKET_V4_NO_SOCKET);
    EXPECT_EQ(connect_error(directory.file("missing/socket")), COMM_SOCKET_V4_NO_SOCKET);
    std::ofstream(path) << "a file";
    EXPECT_EQ(connect_error(path), COMM_SOCKET_V4_REFUSED);
    EXPECT_EQ(connect_error(path + "/socket"), COMM_SOCKET_V4_NO_SOCKET);
    ASSERT_EQ(unlink(path.c_str()), 0);
    { const RawListener listener(path); }
    EXPECT_EQ(connect_error(path), COMM_SOCKET_V4_REFUSED) << "left over";
    for (const int other_kind : {SOCK_SEQPACKET, SOCK_DGRAM}) {
        ASSERT_EQ(unlink(path.c_str()), 0);
        const RawPeer other(socket(AF_UNIX, other_kind, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(other.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(other_kind == SOCK_DGRAM ? 0 : listen(other.fd, 1), 0);
        EXPECT_EQ(connect_error(path), COMM_SOCKET_V4_REFUSED) << "of kind " << other_kind;
    }
    const std::string loop = directory.file("loop");
    ASSERT_EQ(symlink("loop", loop.c_str()), 0);
    EXPECT_EQ(connect_error(loop), COMM_SOCKET_V4_NO_SOCKET);
    EXPECT_EQ(connect_error(""), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(connect_error("/" + std::string(107, 'x')), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_connect(nullptr, SHORT_US, nullptr), nullptr);
}

TEST_F(client_test, reports_that_it_has_no_permission) {
    const DrivenServer server(path);
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (!obey_file_modes()) {
            _exit(3);
        }
        comm_socket_v4_error error = COMM_SOCKET_V4_OK;
        const comm_socket_v4_connection* connection = comm_socket_v4_connect(path.c_str(), SHORT_US, &error);
        _exit(connection == nullptr && error == COMM_SOCKET_V4_PERMISSION ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(client_test, connecting_to_a_full_backlog_times_out) {
    const RawListener listener(path, 0);
    const RawPeer first(path);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connect_error(path), COMM_SOCKET_V4_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(SHORT_US));
}

TEST_F(client_test, connecting_waits_for_a_place_in_the_backlog) {
    const RawListener listener(path, 0);
    const RawPeer first(path);
    std::thread server([&listener] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const RawPeer accepted = listener.accept_one();
    });
    EXPECT_NE(connected(), nullptr);
    server.join();
}

TEST_F(client_test, a_full_server_closes_the_connection) {
    const DrivenServer server(path);
    std::vector<RawPeer> peers;
    for (int i = 0; i < 64; ++i) {
        peers.emplace_back(path);
    }
    const Connection connection = connected();
    server.idle();
    const Packet request = make_request("hello");
    comm_socket_v4_packet* received = nullptr;
    EXPECT_EQ(comm_socket_v4_call(connection.get(), request.get(), PATIENT_US, &received),
              COMM_SOCKET_V4_CLOSED);
    EXPECT_EQ(received, nullptr);
}

TEST_F(client_test, invalid_arguments_are_reported) {
    const DrivenServer server(path);
    const Connection connection = connected();
    comm_socket_v4_packet* received = nullptr;
    const Packet empty(comm_socket_v4_packet_create());
    const Packet response = make_request("x");
    comm_socket_v4_packet_make_response(response.get());
    const Packet flags = make_request("x");
    flags->flags = 9;
    for (comm_socket_v4_packet* packet : {empty.get(), response.get(), flags.get()}) {
        EXPECT_EQ(comm_socket_v4_call(connection.get(), packet, SHORT_US, &received),
                  COMM_SOCKET_V4_BAD_ARGUMENT);
    }
    EXPECT_EQ(comm_socket_v4_call(nullptr, response.get(), SHORT_US, &received), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_call(connection.get(), nullptr, SHORT_US, &received),
              COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_call(connection.get(), response.get(), SHORT_US, nullptr),
              COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_send_request(nullptr, response.get(), SHORT_US), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_wait_reply(nullptr, 1, SHORT_US, &received), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_wait_reply(connection.get(), 1, SHORT_US, nullptr), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_connection_get_fd(nullptr), -1);
    EXPECT_GE(comm_socket_v4_connection_get_fd(connection.get()), 0);
    EXPECT_EQ(comm_socket_v4_disconnect(nullptr), nullptr);
}

TEST_F(client_test, a_failed_call_leaves_no_reply_behind) {
    const DrivenServer server(path);
    const Connection connection = connected();
    const Packet request = make_request("x");
    const Packet stale = make_request("stale");
    const auto expect_none = [&stale](const auto& call) {
        comm_socket_v4_packet* reply = stale.get();
        EXPECT_NE(call(&reply), COMM_SOCKET_V4_OK);
        EXPECT_EQ(reply, nullptr);
    };
    expect_none([&](auto reply) { return comm_socket_v4_call(nullptr, request.get(), SHORT_US, reply); });
    expect_none([&](auto reply) { return comm_socket_v4_call(connection.get(), nullptr, SHORT_US, reply); });
    expect_none([&](auto reply) { return comm_socket_v4_call(connection.get(), request.get(), 0, reply); });
    expect_none([&](auto reply) { return comm_socket_v4_wait_reply(nullptr, 1, SHORT_US, reply); });
    expect_none([&](auto reply) { return comm_socket_v4_wait_reply(connection.get(), 1, 0, reply); });
    expect_none([&](auto reply) { return comm_socket_v4_call_within(nullptr, request.get(), 1, 1, reply); });
    expect_none(
        [&](auto reply) { return comm_socket_v4_call_within(connection.get(), nullptr, 1, 1, reply); });
    expect_none([&](auto reply) { return comm_socket_v4_wait_reply_within(nullptr, 1, 1, 1, reply); });
}

TEST_F(client_test, every_error_has_a_text_of_its_own) {
    std::set<std::string> texts;
    for (int error = COMM_SOCKET_V4_OK; error <= COMM_SOCKET_V4_SYSTEM; ++error) {
        texts.insert(comm_socket_v4_error_text(static_cast<comm_socket_v4_error>(error)));
    }
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(COMM_SOCKET_V4_SYSTEM) + 1);
    EXPECT_EQ(texts.count("unknown error"), 0u);
    EXPECT_STREQ(comm_socket_v4_error_text(static_cast<comm_socket_v4_error>(COMM_SOCKET_V4_SYSTEM + 1)),
                 "unknown error");
}

TEST_F(raw_server_test, reads_a_reply_that_comes_byte_by_byte) {
    const std::string frame = reply_frame(1, "hello", "How are you?", {{"a", "b"}});
    std::thread sender([&] {
        for (const char byte : frame) {
            server.send_all(std::string(1, byte));
            std::this_thread::yield();
        }
    });
    Packet reply;
    EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_OK);
    sender.join();
    EXPECT_STREQ(comm_socket_v4_packet_get_pair_value(reply.get(), 0), "b");
}

TEST_F(raw_server_test, reads_a_reply_of_many_megabytes) {
    const std::string value(20u << 20, 'v');
    std::thread sender([&] {
        server.send_all(reply_frame(1, "list", "", {{"long", value}, {"short", "x"}}));
    });
    Packet reply;
    ASSERT_EQ(wait(1, &reply), COMM_SOCKET_V4_OK);
    sender.join();
    EXPECT_EQ(comm_socket_v4_packet_get_pair_value_length(reply.get(), 0), value.size());
    EXPECT_STREQ(comm_socket_v4_packet_get_pair_value(reply.get(), 1), "x");
}

TEST_F(raw_server_test, skips_replies_to_other_requests_and_frames_that_are_not_replies) {
    server.send_all(reply_frame(7, "late", "") + request_frame(1, "a request") + reply_frame(1, "mine", ""));
    Packet reply;
    ASSERT_EQ(wait(1, &reply), COMM_SOCKET_V4_OK);
    EXPECT_STREQ(comm_socket_v4_packet_get_command(reply.get()), "mine");
}

TEST_F(raw_server_test, may_wait_again_after_a_time_out_in_the_middle_of_a_reply) {
    const std::string frame = reply_frame(1, "hello", "How are you?");
    server.send_all(frame.substr(0, 30));
    Packet reply;
    EXPECT_EQ(wait(1, &reply, SHORT_US), COMM_SOCKET_V4_TIMEOUT);
    EXPECT_EQ(wait(1, &reply, 0), COMM_SOCKET_V4_TIMEOUT);
    server.send_all(frame.substr(30));
    EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_OK);
}

TEST_F(raw_server_test, reads_a_reply_that_has_arrived_with_a_time_out_of_0) {
    server.send_all(reply_frame(1, "a", "") + reply_frame(2, "b", ""));
    Packet reply;
    EXPECT_EQ(wait(1, &reply, 0), COMM_SOCKET_V4_OK);
    EXPECT_EQ(wait(2, &reply, 0), COMM_SOCKET_V4_OK);
    EXPECT_EQ(wait(3, &reply, 0), COMM_SOCKET_V4_TIMEOUT);
}

TEST_F(raw_server_test, a_server_that_never_stops_sending_does_not_extend_the_time_out) {
    // More than is read at a time: the deadline is checked in between, and the rest is left for the
    // next call.
    const std::string chatter = reply_frame(999, "chatter", std::string(50000, 'x'));
    server.send_all(chatter + chatter + chatter + reply_frame(1, "mine", ""));
    Packet reply;
    EXPECT_EQ(wait(1, &reply, 0), COMM_SOCKET_V4_TIMEOUT);
    EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_OK);
}

TEST_F(raw_server_test, a_slow_reply_is_awaited_within_the_limits) {
    const std::string mine = reply_frame(1, "hello", "How are you?");
    const std::string other = reply_frame(7, "chatter", std::string(200, 'x'));
    const std::string not_a_reply = request_frame(1, "chatter", {std::string(200, 'x')});
    const struct {
        std::string what;
        std::string at_once;
        std::string dripped;
        std::uint64_t silence_us;
        std::uint64_t total_us;
        comm_socket_v4_error outcome;
    } rows[] = {
        {"within the silence", mine.substr(0, BYTES_TO_ID), mine.substr(BYTES_TO_ID), 5 * SECOND_US,
         1000 * SECOND_US, COMM_SOCKET_V4_OK},
        {"after another one", other + mine.substr(0, BYTES_TO_ID), mine.substr(BYTES_TO_ID), 5 * SECOND_US,
         1000 * SECOND_US, COMM_SOCKET_V4_OK},
        {"from its first byte", "", mine, 25 * SECOND_US, 1000 * SECOND_US, COMM_SOCKET_V4_OK},
        {"beyond the total", mine.substr(0, BYTES_TO_ID), mine.substr(BYTES_TO_ID), 5 * SECOND_US,
         20 * SECOND_US, COMM_SOCKET_V4_TIMEOUT},
        {"its id not in time", "", mine, 5 * SECOND_US, 1000 * SECOND_US, COMM_SOCKET_V4_TIMEOUT},
        {"another one", "", other + mine, 25 * SECOND_US, 1000 * SECOND_US, COMM_SOCKET_V4_TIMEOUT},
        {"a request with its id", "", not_a_reply + mine, 25 * SECOND_US, 1000 * SECOND_US,
         COMM_SOCKET_V4_TIMEOUT},
    };
    for (const auto& row : rows) {
        connection = connected();
        server = listener.accept_one();
        server.send_all(row.at_once);
        const StoppedClock clock;
        const DrippingServer drip(server, row.dripped);
        Packet reply;
        EXPECT_EQ(wait_within(1, row.silence_us, row.total_us, &reply), row.outcome) << row.what;
    }
}

TEST_F(raw_server_test, a_slow_reply_does_not_extend_the_plain_time_out) {
    const std::string frame = reply_frame(1, "hello", "How are you?");
    server.send_all(frame.substr(0, BYTES_TO_ID));
    const StoppedClock clock;
    const DrippingServer drip(server, frame.substr(BYTES_TO_ID));
    Packet reply;
    EXPECT_EQ(wait(1, &reply, 5 * SECOND_US), COMM_SOCKET_V4_TIMEOUT);
}

TEST_F(raw_server_test,
       a_reply_that_stops_in_the_middle_times_out_after_the_silence_and_may_be_awaited_again) {
    const std::string frame = reply_frame(1, "hello", "How are you?");
    server.send_all(frame.substr(0, 30));
    Packet reply;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_within(1, SHORT_US, PATIENT_US, &reply), COMM_SOCKET_V4_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(SHORT_US));
    server.send_all(frame.substr(30));
    EXPECT_EQ(wait_within(1, SHORT_US, PATIENT_US, &reply), COMM_SOCKET_V4_OK);
}

TEST_F(raw_server_test, a_reply_that_arrived_while_the_client_was_stopped_is_still_read) {
    server.send_all(reply_frame(1, "list", "", {{"long", std::string(150000, 'v')}}));
    Packet reply;
    EXPECT_EQ(wait_within(1, 1, PATIENT_US, &reply), COMM_SOCKET_V4_OK);
}

TEST_F(raw_server_test, sends_several_requests_in_their_order) {
    const Packet first = make_request("list connections");
    const Packet second = make_request("drop connection by id", {"5", "cam1"});
    const Packet third = make_request("list connections");
    comm_socket_v4_packet* const requests[] = {first.get(), second.get(), third.get()};
    ASSERT_EQ(comm_socket_v4_send_requests(connection.get(), requests, 3, PATIENT_US), COMM_SOCKET_V4_OK);
    const std::string expected = request_frame(1, "list connections") +
                                 request_frame(2, "drop connection by id", {"5", "cam1"}) +
                                 request_frame(3, "list connections");
    EXPECT_EQ(server.read_bytes(expected.size()), expected);
    EXPECT_EQ(first->request_id, 1u);
    EXPECT_EQ(second->request_id, 2u);
    EXPECT_EQ(third->request_id, 3u);
    EXPECT_EQ(comm_socket_v4_send_requests(connection.get(), requests, 0, PATIENT_US), COMM_SOCKET_V4_OK);
    EXPECT_EQ(comm_socket_v4_send_requests(connection.get(), nullptr, 0, PATIENT_US), COMM_SOCKET_V4_OK);
    EXPECT_EQ(server.read_available(), "");
}

TEST_F(raw_server_test, several_requests_are_not_sent_when_one_of_them_is_invalid) {
    const Packet good = make_request("hello");
    const Packet unfinished(comm_socket_v4_packet_create());
    const Packet response = make_request("x");
    comm_socket_v4_packet_make_response(response.get());
    const Packet large = make_request("x", {std::string(2097152, 'a')});
    const std::pair<comm_socket_v4_packet*, comm_socket_v4_error> rows[] = {
        {nullptr, COMM_SOCKET_V4_BAD_ARGUMENT},
        {unfinished.get(), COMM_SOCKET_V4_BAD_ARGUMENT},
        {response.get(), COMM_SOCKET_V4_BAD_ARGUMENT},
        {large.get(), COMM_SOCKET_V4_TOO_LARGE},
    };
    for (const auto& [bad, error] : rows) {
        comm_socket_v4_packet* const requests[] = {good.get(), bad};
        EXPECT_EQ(comm_socket_v4_send_requests(connection.get(), requests, 2, PATIENT_US), error);
        EXPECT_EQ(server.read_available(), "");
        EXPECT_EQ(good->request_id, 0u);
    }
    comm_socket_v4_packet* const one[] = {good.get()};
    EXPECT_EQ(comm_socket_v4_send_requests(nullptr, one, 1, PATIENT_US), COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_send_requests(connection.get(), nullptr, 1, PATIENT_US),
              COMM_SOCKET_V4_BAD_ARGUMENT);
    EXPECT_EQ(comm_socket_v4_send_requests(connection.get(), one, 1, PATIENT_US), COMM_SOCKET_V4_OK);
    EXPECT_EQ(good->request_id, 1u) << "what was not sent used no id";
}

TEST_F(raw_server_test, a_call_is_not_silent_while_its_request_is_read) {
    const Packet request = make_request("x", {std::string(2000000, 'a')});
    const std::string frame = request_frame(1, "x", {std::string(2000000, 'a')});
    const StoppedClock clock;
    std::jthread reader([&] {
        for (std::size_t read = 0; read < frame.size();) {
            read += server.read_bytes(std::min<std::size_t>(frame.size() - read, 50000)).size();
            put_clock_forward(SECOND_US);
        }
        server.send_all(reply_frame(1, "x", "yes"));
    });
    comm_socket_v4_packet* received = nullptr;
    EXPECT_EQ(comm_socket_v4_call_within(connection.get(), request.get(), 20 * SECOND_US, 1000 * SECOND_US,
                                         &received),
              COMM_SOCKET_V4_OK);
    const Packet reply(received);
}

TEST_F(raw_server_test, a_call_to_a_server_that_does_not_read_times_out_after_the_silence) {
    const Packet request = make_request("x", {std::string(2000000, 'a')});
    comm_socket_v4_packet* received = nullptr;
    EXPECT_EQ(
        comm_socket_v4_call_within(connection.get(), request.get(), SHORT_US, 1000 * SECOND_US, &received),
        COMM_SOCKET_V4_TIMEOUT);
    EXPECT_EQ(received, nullptr);
}

TEST_F(raw_server_test, a_broken_reply_ends_the_connection) {
    server.send_all("garbage");
    Packet reply;
    EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_BROKEN_FRAME);
    EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_CLOSED);
    const Packet request = make_request("hello");
    EXPECT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), SHORT_US), COMM_SOCKET_V4_CLOSED);
}

TEST_F(raw_server_test, every_kind_of_broken_reply_is_detected) {
    const std::string rows[] = {
        frame_around(frame_body(0, 1, 0, "x", "", {}, {}), 5),
        std::string("CS\4\0", 4) + be32(268435457),
        frame_around(frame_body(0, 1, 0, "x", "", {}, {}) + "surplus"),
        frame_around(frame_body(0, 1, 0, "x", "", Arguments(65), {})),
        frame_around(frame_body(0, 1, 0, "x", "", {}, Pairs(65537))),
        frame_around(frame_body(4, 1, 0, "x", "", {}, {})),
    };
    for (const std::string& row : rows) {
        connection = connected();
        server = listener.accept_one();
        std::thread sender([&] { server.send_all(row); });
        Packet reply;
        EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_BROKEN_FRAME);
        sender.join();
    }
}

TEST_F(raw_server_test, a_truncated_reply_is_broken_and_an_absent_one_is_closed) {
    const std::string frame = reply_frame(1, "hello", "x", {{"a", "b"}});
    for (std::size_t length = 0; length < frame.size(); ++length) {
        connection = connected();
        server = listener.accept_one();
        server.send_all(frame.substr(0, length));
        server.close_now();
        Packet reply;
        EXPECT_EQ(wait(1, &reply), length == 0 ? COMM_SOCKET_V4_CLOSED : COMM_SOCKET_V4_BROKEN_FRAME)
            << length;
        EXPECT_EQ(wait(1, &reply), COMM_SOCKET_V4_CLOSED);
    }
}

TEST_F(raw_server_test, sending_to_a_server_that_does_not_read_times_out_and_ends_the_connection) {
    const Packet request = make_request("x", {std::string(2000000, 'a')});
    EXPECT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), SHORT_US), COMM_SOCKET_V4_TIMEOUT);
    EXPECT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), SHORT_US), COMM_SOCKET_V4_CLOSED);
}

TEST_F(raw_server_test, sending_to_a_server_that_has_closed_returns_closed) {
    server.close_now();
    const Packet request = make_request("hello");
    EXPECT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), SHORT_US), COMM_SOCKET_V4_CLOSED);
}

TEST_F(raw_server_test, sends_the_bytes_of_the_page) {
    const Packet request = make_request("hello", {"a", std::nullopt});
    ASSERT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), PATIENT_US), COMM_SOCKET_V4_OK);
    const std::string expected = request_frame(1, "hello", {"a", std::nullopt});
    EXPECT_EQ(server.read_bytes(expected.size()), expected);
}

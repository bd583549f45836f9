// How client and server handle system calls that fail. Its own executable, because it replaces them.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "comm_socket/include/comm_socket_v4.h"
#include "tests/comm_socket/fake_clock.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

constexpr std::uint64_t PATIENT_US = 10000000;

// The errors of the next calls of each kind on this thread; later calls behave normally. The echo server runs
// on its own thread and is not affected.
struct NextErrors {
    std::vector<int> socket = {};
    std::vector<int> connect = {};
    std::vector<int> accept4 = {};
    std::vector<int> poll = {};
    std::vector<int> send = {};
    std::vector<int> recv = {};
    std::vector<int> fchmod = {};
    std::vector<int> listen = {};
};
thread_local NextErrors next_errors;
thread_local int sends = 0;
thread_local std::vector<int> poll_timeouts_ms;
thread_local std::uint64_t poll_takes_us = 0;  // added to the clock by each poll

bool is_refused(std::vector<int>& errors) {
    if (errors.empty()) {
        return false;
    }
    errno = errors.front();
    errors.erase(errors.begin());
    return true;
}

}  // namespace

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __real_connect(int fd, const sockaddr* address, socklen_t bytes);
int __real_accept4(int fd, sockaddr* address, socklen_t* bytes, int flags);
int __real_poll(pollfd* entries, nfds_t count, int timeout_ms);
ssize_t __real_send(int fd, const void* data, size_t bytes, int flags);
ssize_t __real_recv(int fd, void* data, size_t bytes, int flags);
int __real_fchmod(int fd, mode_t mode);
int __real_listen(int fd, int backlog);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_connect(int fd, const sockaddr* address, socklen_t bytes);
int __wrap_accept4(int fd, sockaddr* address, socklen_t* bytes, int flags);
int __wrap_poll(pollfd* entries, nfds_t count, int timeout_ms);
ssize_t __wrap_send(int fd, const void* data, size_t bytes, int flags);
ssize_t __wrap_recv(int fd, void* data, size_t bytes, int flags);
int __wrap_fchmod(int fd, mode_t mode);
int __wrap_listen(int fd, int backlog);

int __wrap_socket(int domain, int type, int protocol) {
    return is_refused(next_errors.socket) ? -1 : __real_socket(domain, type, protocol);
}
int __wrap_connect(int fd, const sockaddr* address, socklen_t bytes) {
    return is_refused(next_errors.connect) ? -1 : __real_connect(fd, address, bytes);
}
int __wrap_accept4(int fd, sockaddr* address, socklen_t* bytes, int flags) {
    return is_refused(next_errors.accept4) ? -1 : __real_accept4(fd, address, bytes, flags);
}
int __wrap_poll(pollfd* entries, nfds_t count, int timeout_ms) {
    poll_timeouts_ms.push_back(timeout_ms);
    put_clock_forward(poll_takes_us);
    return is_refused(next_errors.poll) ? -1 : __real_poll(entries, count, timeout_ms);
}
ssize_t __wrap_send(int fd, const void* data, size_t bytes, int flags) {
    ++sends;
    return is_refused(next_errors.send) ? -1 : __real_send(fd, data, bytes, flags);
}
ssize_t __wrap_recv(int fd, void* data, size_t bytes, int flags) {
    return is_refused(next_errors.recv) ? -1 : __real_recv(fd, data, bytes, flags);
}
int __wrap_fchmod(int fd, mode_t mode) {
    return is_refused(next_errors.fchmod) ? -1 : __real_fchmod(fd, mode);
}
int __wrap_listen(int fd, int backlog) {
    return is_refused(next_errors.listen) ? -1 : __real_listen(fd, backlog);
}
}

namespace {

struct Row {
    std::vector<int> NextErrors::*call;
    int error;
    comm_socket_v4_error outcome;
};

class client_system_calls_test : public testing::Test {
  protected:
    ~client_system_calls_test() override {
        next_errors = {};
        poll_takes_us = 0;
    }

    Connection connect_to_server(comm_socket_v4_error* error) const {
        return Connection(comm_socket_v4_connect(path.c_str(), PATIENT_US, error));
    }

    TemporaryDirectory directory;
    std::string path = directory.file("socket");
    EchoServer server{path};
};

}  // namespace

TEST_F(client_system_calls_test, a_refused_connection_reports_the_reason_and_leaks_no_descriptor) {
    const int descriptors = count_descriptors();
    for (const Row& row : {Row{&NextErrors::socket, EMFILE, COMM_SOCKET_V4_SYSTEM},
                           {&NextErrors::connect, EACCES, COMM_SOCKET_V4_PERMISSION},
                           {&NextErrors::connect, EPERM, COMM_SOCKET_V4_PERMISSION},
                           {&NextErrors::connect, ENOTDIR, COMM_SOCKET_V4_NO_SOCKET},
                           {&NextErrors::connect, ENOBUFS, COMM_SOCKET_V4_SYSTEM}}) {
        next_errors.*row.call = {row.error};
        comm_socket_v4_error error = COMM_SOCKET_V4_OK;
        EXPECT_EQ(connect_to_server(&error), nullptr);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(error, row.outcome) << row.error;
        EXPECT_EQ(count_descriptors(), descriptors);
    }
}

TEST_F(client_system_calls_test, a_failed_system_call_ends_the_request_with_its_error) {
    for (const Row& row : {Row{&NextErrors::send, ECONNRESET, COMM_SOCKET_V4_CLOSED},
                           {&NextErrors::send, ENOBUFS, COMM_SOCKET_V4_SYSTEM},
                           {&NextErrors::recv, ECONNRESET, COMM_SOCKET_V4_CLOSED},
                           {&NextErrors::recv, ENOBUFS, COMM_SOCKET_V4_SYSTEM},
                           {&NextErrors::poll, EINVAL, COMM_SOCKET_V4_SYSTEM}}) {
        const Connection connection = connect_to_server(nullptr);
        const Packet request = make_request("hello");
        // The first read must find no reply: one that has already arrived would need no poll.
        next_errors = {.recv = {EAGAIN}};
        (next_errors.*row.call).insert((next_errors.*row.call).begin(), row.error);
        comm_socket_v4_packet* reply = nullptr;
        EXPECT_EQ(comm_socket_v4_call(connection.get(), request.get(), PATIENT_US, &reply), row.outcome)
            << row.error;
        EXPECT_EQ(reply, nullptr);
    }
}

TEST_F(client_system_calls_test, after_a_failed_send_nothing_more_is_sent) {
    const Connection connection = connect_to_server(nullptr);
    const Packet request = make_request("hello");
    next_errors.send = {ENOBUFS};
    EXPECT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), PATIENT_US),
              COMM_SOCKET_V4_SYSTEM);
    EXPECT_EQ(comm_socket_v4_send_request(connection.get(), request.get(), PATIENT_US),
              COMM_SOCKET_V4_CLOSED);
}

TEST_F(client_system_calls_test, several_requests_are_sent_in_one_write) {
    const Connection connection = connect_to_server(nullptr);
    const Packet list = make_request("list connections");
    const Packet drop = make_request("drop connection by id", {"5"});
    comm_socket_v4_packet* const requests[] = {list.get(), drop.get(), list.get()};
    sends = 0;
    EXPECT_EQ(comm_socket_v4_send_requests(connection.get(), requests, 3, PATIENT_US), COMM_SOCKET_V4_OK);
    EXPECT_EQ(sends, 1);
}

TEST_F(client_system_calls_test, interrupted_calls_are_restarted) {
    // The first read must find no reply: one that has already arrived would need no poll.
    next_errors = {.connect = {EINTR}, .poll = {EINTR}, .send = {EINTR}, .recv = {EINTR, EAGAIN}};
    comm_socket_v4_error error = COMM_SOCKET_V4_SYSTEM;
    const Connection connection = connect_to_server(&error);
    ASSERT_EQ(error, COMM_SOCKET_V4_OK);
    const Packet request = make_request("hello");
    comm_socket_v4_packet* received = nullptr;
    EXPECT_EQ(comm_socket_v4_call(connection.get(), request.get(), PATIENT_US, &received), COMM_SOCKET_V4_OK);
    const Packet reply(received);
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(comm_socket_v4_packet_get_message(reply.get()), "How are you?");
    for (const std::vector<int>& left :
         {next_errors.connect, next_errors.poll, next_errors.send, next_errors.recv}) {
        EXPECT_TRUE(left.empty());
    }
}

TEST_F(client_system_calls_test, interruptions_do_not_extend_the_timeout) {
    const Connection connection = connect_to_server(nullptr);
    const StoppedClock clock;
    next_errors.poll = {EINTR, EINTR, EINTR, EINTR};
    poll_timeouts_ms.clear();
    poll_takes_us = PATIENT_US / 4;
    comm_socket_v4_packet* reply = nullptr;
    EXPECT_EQ(comm_socket_v4_wait_reply(connection.get(), 1, PATIENT_US, &reply), COMM_SOCKET_V4_TIMEOUT);
    EXPECT_EQ(poll_timeouts_ms, (std::vector<int>{10000, 7500, 5000, 2500, 0}));
}

TEST(server_system_calls, a_server_that_fails_before_it_takes_the_path_keeps_the_file_there) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("socket");
    std::ofstream(path) << "text";
    comm_socket_v4* server = comm_socket_v4_create();
    next_errors.fchmod = {EIO};
    EXPECT_EQ(comm_socket_v4_create_server(server, path.c_str()), -1);
    EXPECT_EQ(errno, EIO);
    struct stat found {};
    EXPECT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_size, 4);
    comm_socket_v4_destroy(server);
}

TEST(server_system_calls, a_server_that_cannot_listen_leaves_no_socket_at_the_path) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("socket");
    comm_socket_v4* server = comm_socket_v4_create();
    next_errors.listen = {EADDRINUSE};
    EXPECT_EQ(comm_socket_v4_create_server(server, path.c_str()), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    struct stat found {};
    EXPECT_NE(lstat(path.c_str(), &found), 0);
    comm_socket_v4_destroy(server);
}

TEST(server_system_calls, a_client_that_leaves_before_it_is_accepted_does_not_delay_the_next) {
    const TemporaryDirectory directory;
    DrivenServer server(directory.file("socket"));
    for (const int error : {ECONNABORTED, EPROTO, EINTR}) {
        const RawPeer peer(directory.file("socket"));
        peer.send_all(request_frame(1, "hello"));
        next_errors.accept4 = {error};
        server.idle();
        EXPECT_TRUE(next_errors.accept4.empty());
        EXPECT_NE(server.take(), nullptr) << error;
    }
}

// How client and server handle system calls that fail. Its own executable, because it replaces them.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <vector>

#include "comm_socket/include/comm_socket_v4.h"
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
};
thread_local NextErrors next_errors;
thread_local int sends = 0;

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
int __wrap_socket(int domain, int type, int protocol);
int __wrap_connect(int fd, const sockaddr* address, socklen_t bytes);
int __wrap_accept4(int fd, sockaddr* address, socklen_t* bytes, int flags);
int __wrap_poll(pollfd* entries, nfds_t count, int timeout_ms);
ssize_t __wrap_send(int fd, const void* data, size_t bytes, int flags);
ssize_t __wrap_recv(int fd, void* data, size_t bytes, int flags);

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
    return is_refused(next_errors.poll) ? -1 : __real_poll(entries, count, timeout_ms);
}
ssize_t __wrap_send(int fd, const void* data, size_t bytes, int flags) {
    ++sends;
    return is_refused(next_errors.send) ? -1 : __real_send(fd, data, bytes, flags);
}
ssize_t __wrap_recv(int fd, void* data, size_t bytes, int flags) {
    return is_refused(next_errors.recv) ? -1 : __real_recv(fd, data, bytes, flags);
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
    ~client_system_calls_test() override { next_errors = {}; }

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

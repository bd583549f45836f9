// Tests the service of the control socket with a fake library that does what each test sets.
#include "control/control_server.h"

#include <comm_socket_v4.h>

#include <cerrno>
#include <deque>

#include "core/quit_signals.h"
#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"

namespace {

// Records the order in which the server calls the library, and sets what the library does.
struct FakeLibrary {
    std::string calls;
    bool create_fails = false;
    bool create_server_fails = false;
    bool open = true;
    int idle_errno = 0;
    std::deque<comm_socket_v4_packet*> requests;
    std::deque<int> send_results;  // 1 when none are left
    int send_errno = 0;
    std::vector<std::uint64_t> wait_deadlines_us;
    std::vector<std::uint64_t> flush_deadlines_us;
    bool client_has_gone = true;
    bool packet_create_fails = false;
    bool begin_writing_fails = false;
    bool write_nv_pair_fails = false;
    bool write_nv_pair_shared_fails = false;
    bool write_end_fails = false;
    std::uint64_t sent_id = 0;
    std::uint32_t sent_flags = 0;
    std::string sent_path;
};

FakeLibrary library;

comm_socket_v4* const HANDLE = reinterpret_cast<comm_socket_v4*>(&library);
comm_socket_v4_client* const CLIENT = reinterpret_cast<comm_socket_v4_client*>(&library);

}  // namespace

extern "C" {

comm_socket_v4_packet* __real_comm_socket_v4_packet_create();
int __real_comm_socket_v4_packet_begin_writing(comm_socket_v4_packet*, int, const char*, const char*);
int __real_comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet*, const char*, const char*);
int __real_comm_socket_v4_packet_write_nv_pair_shared(comm_socket_v4_packet*, const char*, const char*,
                                                      comm_socket_v4_shared_bytes, const char*);
int __real_comm_socket_v4_packet_write_end(comm_socket_v4_packet*);

comm_socket_v4* __wrap_comm_socket_v4_create() {
    library.calls += "create ";
    return library.create_fails ? nullptr : HANDLE;
}

int __wrap_comm_socket_v4_create_server(comm_socket_v4* /*server*/, const char* path) {
    library.calls += "create_server ";
    library.sent_path = path;
    return library.create_server_fails ? -1 : 0;
}

comm_socket_v4* __wrap_comm_socket_v4_destroy(comm_socket_v4* server) {
    library.calls += server == nullptr ? "destroy_null " : "destroy ";
    return nullptr;
}

int __wrap_comm_socket_v4_is_open(const comm_socket_v4* /*server*/) {
    library.calls += "is_open ";
    return library.open ? 1 : 0;
}

int __wrap_comm_socket_v4_idle(comm_socket_v4* /*server*/) {
    library.calls += "idle ";
    errno = library.idle_errno;
    return library.idle_errno != 0 ? -1 : 0;
}

comm_socket_v4_client* __wrap_comm_socket_v4_accept_connection(comm_socket_v4* /*server*/) {
    library.calls += "accept ";
    return CLIENT;
}

comm_socket_v4_client* __wrap_comm_socket_v4_get_disconnected_client(comm_socket_v4* /*server*/) {
    library.calls += "get_disconnected ";
    return library.client_has_gone ? CLIENT : nullptr;
}

void __wrap_comm_socket_v4_free_client(comm_socket_v4_client* client) {
    library.calls += client == CLIENT ? "free_client " : "free_nobody ";
}

comm_socket_v4_packet* __wrap_comm_socket_v4_server_get_packet(comm_socket_v4* /*server*/,
                                                               comm_socket_v4_client** client) {
    library.calls += "get_packet ";
    *client = CLIENT;
    if (library.requests.empty()) {
        return nullptr;
    }
    comm_socket_v4_packet* const request = library.requests.front();
    library.requests.pop_front();
    return request;
}

void __wrap_comm_socket_v4_flush(comm_socket_v4* /*server*/, std::uint64_t deadline_us) {
    library.calls += "flush ";
    library.flush_deadlines_us.push_back(deadline_us);
}

comm_socket_v4_packet* __wrap_comm_socket_v4_packet_create() {
    return library.packet_create_fails ? nullptr : __real_comm_socket_v4_packet_create();
}

int __wrap_comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* packet, int reserved,
                                               const char* command, const char* message) {
    return library.begin_writing_fails
               ? -1
               : __real_comm_socket_v4_packet_begin_writing(packet, reserved, command, message);
}

int __wrap_comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name,
                                               const char* value) {
    return library.write_nv_pair_fails ? -1 : __real_comm_socket_v4_packet_write_nv_pair(packet, name, value);
}

int __wrap_comm_socket_v4_packet_write_nv_pair_shared(comm_socket_v4_packet* packet, const char* name,
                                                      const char* before, comm_socket_v4_shared_bytes shared,
                                                      const char* after) {
    return library.write_nv_pair_shared_fails
               ? -1
               : __real_comm_socket_v4_packet_write_nv_pair_shared(packet, name, before, shared, after);
}

int __wrap_comm_socket_v4_packet_write_end(comm_socket_v4_packet* packet) {
    return library.write_end_fails ? -1 : __real_comm_socket_v4_packet_write_end(packet);
}

int __wrap_comm_socket_v4_packet_send_to_client(comm_socket_v4_client* /*client*/,
                                                const comm_socket_v4_packet* packet) {
    library.calls += "send ";
    library.sent_id = packet->request_id;
    library.sent_flags = packet->flags;
    if (library.send_results.empty()) {
        return 1;
    }
    const int result = library.send_results.front();
    library.send_results.pop_front();
    errno = library.send_errno;
    return result;
}

void __wrap_comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* /*client*/,
                                                               std::uint64_t deadline_us) {
    library.calls += "wait ";
    library.wait_deadlines_us.push_back(deadline_us);
}

}  // extern "C"

namespace {

class control_server_test : public ConnectionFixture {
  protected:
    control_server_test() {
        library = {};
        fake_clock_us += 1000000;
    }
    ~control_server_test() override {
        quit_signals = 0;
        stop_control_server();
        for (comm_socket_v4_packet* const request : library.requests) {
            comm_socket_v4_packet_release(request);
        }
    }

    void start() {
        ASSERT_TRUE(start_control_server());
        library.calls.clear();
    }

    comm_socket_v4_packet* add_request(const char* command, std::uint64_t id = 7) {
        comm_socket_v4_packet* const request = __real_comm_socket_v4_packet_create();
        request->request_id = id;
        EXPECT_EQ(__real_comm_socket_v4_packet_begin_writing(request, 0, command, ""), 0);
        EXPECT_EQ(__real_comm_socket_v4_packet_write_end(request), 0);
        library.requests.push_back(request);
        return request;
    }

    std::string service() {
        return printed_by([] { server_idle(); });
    }
};

using control_server_death_test = control_server_test;

}  // namespace

TEST_F(control_server_test, starts_at_its_fixed_path) {
    EXPECT_TRUE(start_control_server());
    EXPECT_EQ(library.calls, "create create_server ");
    EXPECT_EQ(library.sent_path, "/var/run/v9_rtmp_server.socket");
}

TEST_F(control_server_test, reports_which_step_of_the_start_failed) {
    library.create_fails = true;
    EXPECT_EQ(printed_by([] { EXPECT_FALSE(start_control_server()); }), "Failed to create comm socket\n");
    library = {};
    library.create_server_fails = true;
    EXPECT_EQ(printed_by([] { EXPECT_FALSE(start_control_server()); }), "Failed to create server socket\n");
    EXPECT_EQ(library.calls, "create create_server destroy ");
}

TEST_F(control_server_test, stopping_without_a_socket_is_harmless) {
    stop_control_server();
    EXPECT_EQ(library.calls, "destroy_null ");
}

TEST_F(control_server_test, a_service_takes_its_steps_in_order) {
    start();
    add_request("hello", 0x123456789);
    EXPECT_EQ(service(), "");
    EXPECT_EQ(library.calls,
              "is_open idle accept get_disconnected free_client get_packet send get_packet flush ");
    EXPECT_EQ(library.sent_id, 0x123456789U);
    EXPECT_EQ(library.sent_flags, 0U);
}

TEST_F(control_server_test, a_service_frees_no_client_when_none_has_disconnected) {
    start();
    library.client_has_gone = false;
    EXPECT_EQ(service(), "");
    EXPECT_EQ(library.calls, "is_open idle accept get_disconnected get_packet flush ");
}

TEST_F(control_server_test, a_service_ends_with_20_ms_of_sending) {
    start();
    EXPECT_EQ(service(), "");
    EXPECT_EQ(library.flush_deadlines_us, (std::vector<std::uint64_t>{fake_clock_us + 20000}));
}

TEST_F(control_server_test, services_are_100_ms_apart) {
    start();
    service();
    library.calls.clear();
    fake_clock_us += 99999;
    service();
    EXPECT_EQ(library.calls, "");
    fake_clock_us += 1;
    service();
    EXPECT_NE(library.calls, "");
}

TEST_F(control_server_test, a_lost_socket_is_reported_once_and_stays_closed) {
    start();
    library.open = false;
    EXPECT_EQ(service(), "Lost server socket\n");
    EXPECT_EQ(library.calls, "is_open destroy ");
    fake_clock_us += 100000;
    EXPECT_EQ(service(), "");
    EXPECT_EQ(library.calls, "is_open destroy ");
}

TEST_F(control_server_test,
       a_failed_library_call_is_reported_without_a_newline_and_closes_the_socket_for_good) {
    start();
    library.idle_errno = EBADF;
    EXPECT_EQ(service(), "Idle failed: Bad file descriptor");
    EXPECT_EQ(library.calls, "is_open idle destroy ");
    fake_clock_us += 100000;
    EXPECT_EQ(service(), "");
}

TEST_F(control_server_test, a_blocked_reply_is_awaited_for_ten_seconds_at_a_time) {
    start();
    add_request("hello");
    library.send_results = {0, 0, 1};
    EXPECT_EQ(service(), "");
    EXPECT_TRUE(library.calls.ends_with("get_packet send wait send wait send get_packet flush "));
    EXPECT_EQ(library.wait_deadlines_us, (std::vector<std::uint64_t>(2, fake_clock_us + 10000000)));
}

TEST_F(control_server_test, a_reply_that_cannot_be_sent_is_reported_and_the_next_request_is_answered) {
    start();
    add_request("hello");
    add_request("hello");
    library.send_results = {-1};
    library.send_errno = EPIPE;
    EXPECT_EQ(service(), "Unable to send packet: Broken pipe\n");
    EXPECT_TRUE(library.calls.ends_with("get_packet send get_packet send get_packet flush "));
}

TEST_F(control_server_test, packets_that_are_not_requests_are_skipped) {
    start();
    comm_socket_v4_packet_make_response(add_request("hello"));
    add_request("hello");
    EXPECT_EQ(service(), "");
    EXPECT_TRUE(library.calls.ends_with("get_packet get_packet send get_packet flush "));
}

TEST_F(control_server_test, a_reply_carries_the_async_bit_only_where_one_is_sent) {
    start();
    comm_socket_v4_packet_set_async(add_request("hello"), 1);
    EXPECT_EQ(service(), "");
    EXPECT_EQ(library.calls.find("send"), std::string::npos);
}

TEST_F(control_server_test, a_service_handles_no_request_after_a_quit_signal) {
    start();
    comm_socket_v4_packet* const kept = add_request("hello");
    add_request("hello");
    quit_signals = 1;
    EXPECT_EQ(service(), "");
    EXPECT_TRUE(library.calls.ends_with("get_packet "));
    EXPECT_EQ(library.requests.size(), 1U);
    comm_socket_v4_packet_release(kept);
}

TEST_F(control_server_death_test, a_reply_that_cannot_be_made_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    start();
    add_request("list connections");
    library.packet_create_fails = true;
    EXPECT_EXIT(server_idle(), testing::KilledBySignal(SIGABRT), assertion_line("answer", "respkt != NULL"));
    library.packet_create_fails = false;
    library.begin_writing_fails = true;
    EXPECT_EXIT(server_idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("begin_reply",
                               "comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0"));
    library.begin_writing_fails = false;
    library.write_nv_pair_fails = true;
    EXPECT_EXIT(
        server_idle(), testing::KilledBySignal(SIGABRT),
        assertion_line("write_pair", "comm_socket_v4_packet_write_nv_pair(respkt, name, value) == 0"));
    library.write_nv_pair_fails = false;
    add_connection();
    library.write_nv_pair_shared_fails = true;
    EXPECT_EXIT(server_idle(), testing::KilledBySignal(SIGABRT),
                assertion_line(
                    "write_shared_pair",
                    "comm_socket_v4_packet_write_nv_pair_shared(respkt, name, before, shared, after) == 0"));
    library.write_nv_pair_shared_fails = false;
    library.write_end_fails = true;
    EXPECT_EXIT(server_idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("end_reply", "comm_socket_v4_packet_write_end(respkt) == 0"));
}

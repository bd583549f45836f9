// One failing system call and all its consequences.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/fault/faulty_server.h"
#include "tests/support/amf_bytes.h"
#include "tests/support/control_peer.h"
#include "tests/support/live_pair.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/test_failure.h"

namespace {

std::string within(std::string_view function) {
    return ServerSymbols::get().within(function);
}

FinishedRun run_with_fault(const std::string& plan) {
    const FaultWatch watch;
    FinishedRun run = run_server_to_its_end(with_faults(plan));
    EXPECT_EQ(watch.injected(), 1U) << watch.describe();
    return run;
}

void expect_refused_start(const FinishedRun& run, const std::string& text) {
    EXPECT_EQ(run.end.status, 1);
    EXPECT_EQ(run.err, text);
}

void expect_assertion(FaultyServer& faulty, const std::string& function, const std::string& expression) {
    SCOPED_TRACE(function);
    const ProcessEnd end = faulty.server.wait_for_exit();
    EXPECT_EQ(end.signal, SIGABRT) << faulty.watch.describe();
    EXPECT_EQ(faulty.server.count("v9_rtmp_server: " + function + ": Assertion '" + expression + "' failed."),
              1U)
        << faulty.server.raw_text() << faulty.watch.describe();
}

// Checks that a connection leaves nothing behind, compared with the state before it.
class AtRest {
  public:
    explicit AtRest(const ServerProcess& process) : server(process), fds(process.fd_count()) {}

    void expect() const {
        server.wait_for_thread_count(THREADS_AT_REST);
        server.wait_for_fd_count(fds);
    }

  private:
    const ServerProcess& server;
    const std::size_t fds;
};

}  // namespace

// ---- the start

TEST(refused_calls, without_memory_for_the_control_socket_the_server_does_not_start) {
    expect_refused_start(run_with_fault("new" + within("comm_socket_v4_create") + ":1:ENOMEM"),
                         "Failed to create comm socket\n");
}

TEST(refused_calls,
     a_control_socket_that_cannot_be_made_bound_or_listened_at_keeps_the_server_from_starting) {
    for (const char* const plan : {"socket:1:EMFILE", "bind:1:EACCES", "listen:1:EADDRINUSE"}) {
        expect_refused_start(run_with_fault(plan), "Failed to create server socket\n");
    }
}

TEST(refused_calls, without_a_descriptor_for_the_listener_the_server_ends_in_silence) {
    expect_refused_start(run_with_fault("socket:2:EMFILE"), "");
}

TEST(refused_calls, a_port_that_cannot_be_bound_keeps_the_server_from_starting) {
    expect_refused_start(run_with_fault("bind:2:EACCES"), "Cannot bind socket\n");
}

TEST(refused_calls, a_port_that_cannot_be_listened_at_keeps_the_server_from_starting) {
    expect_refused_start(run_with_fault("listen:2:EADDRINUSE"), "Cannot listen\n");
}

// ---- memory

TEST(refused_calls, without_memory_for_what_they_share_players_miss_that_message_only) {
    FaultyServer faulty("nothrow_new.main" + within("SharedPayload::lay_out") + ":2:ENOMEM");
    RtmpClient first = playing_client("cam1");
    RtmpClient second = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    for (std::uint32_t i = 1; i <= 3; ++i) {
        publisher.send_audio(1000, aac_frame(i));
    }
    (void)publisher.round_trip();
    for (RtmpClient* const player : {&first, &second}) {
        EXPECT_EQ(player->expect_message(MSG_AUDIO).payload, aac_frame(1));
        EXPECT_EQ(player->expect_message(MSG_AUDIO).payload, aac_frame(3));
    }
    EXPECT_EQ(faulty.server.count("Relay fail"), 2U);
}

TEST(refused_calls, a_writer_needs_no_memory_that_could_be_refused) {
    FaultyServer faulty("new.writer:1:ENOMEM");
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    for (std::uint32_t i = 1; i <= 200; ++i) {
        publisher.send_audio(1000, aac_frame(i));
    }
    for (std::uint32_t i = 1; i <= 200; ++i) {
        EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(i));
    }
    EXPECT_EQ(faulty.watch.injected(), 0U);
}

TEST(refused_calls, a_message_for_which_there_is_no_memory_ends_the_reading) {
    FaultyServer faulty("nothrow_new.reader:1:ENOMEM");
    const AtRest at_rest(faulty.server);
    RtmpClient client = handshaken_client();
    client.send_audio(7, aac_frame(1));
    (void)client.expect_closed();
    const std::vector<std::string> lines = faulty.server.lines_through("Dropping connection");
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {std::string("Failed to alloc pkt data"),
                            std::string("RTMP packet: chunk fmt=0 stream_id=4 timestamp=7 message_length=100 "
                                        "message_type_id=8 message_stream_id=0"),
                            std::string("Thread 1 died")}));
    at_rest.expect();
}

TEST(refused_calls, a_chunk_size_without_memory_for_its_echo_is_accepted_and_not_echoed) {
    FaultyServer faulty("nothrow_new.reader:2:ENOMEM");
    RtmpClient client = handshaken_client();
    client.set_chunk_size(4096);
    EXPECT_TRUE(client.round_trip().empty());
    EXPECT_EQ(client.read_chunk_size(), 128U);
    EXPECT_EQ(faulty.server.count("RTMP: New chunk size 4096 accepted"), 1U);
}

TEST(refused_calls, a_control_reply_for_which_there_is_no_memory_ends_the_process) {
    struct Row {
        const char* function;
        const char* named;
        const char* expression;
    };
    for (const Row& row : {Row{"comm_socket_v4_packet_create", "answer", "respkt != NULL"},
                           Row{"comm_socket_v4_packet_begin_writing", "begin_reply",
                               "comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0"},
                           Row{"comm_socket::write_pair", "write_pair",
                               "comm_socket_v4_packet_write_nv_pair(respkt, name, value) == 0"}}) {
        FaultyServer faulty("new" + within(row.function) + ":1:ENOMEM");
        ControlPeer peer;
        peer.send_bytes(control_request(1, "list connections"));
        expect_assertion(faulty, row.named, row.expression);
    }
}

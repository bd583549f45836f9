// One failing system call and all its consequences.
#include <gtest/gtest.h>

#include <string>

#include "tests/fault/faulty_server.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"

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

}  // namespace

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

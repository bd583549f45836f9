// One failing system call and all its consequences.
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/fault/faulty_server.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"

TEST(refused_calls, a_server_that_cannot_open_its_sockets_does_not_start_and_reports_why) {
    struct Row {
        FaultPlan plan;
        const char* text;
    };
    const char* const no_control_socket = "Failed to create server socket\n";
    for (const Row& row :
         {Row{{.call = FaultCall::NEW,
         .error = ENOMEM,
         .within = ServerSymbols::get().within("comm_socket_v4_create"),
         .nth = 1},
              "Failed to create comm socket\n"},
          Row{{.call = FaultCall::SOCKET, .error = EMFILE, .nth = 1}, no_control_socket},
          Row{{.call = FaultCall::BIND, .error = EACCES, .nth = 1}, no_control_socket},
          Row{{.call = FaultCall::LISTEN, .error = EADDRINUSE, .nth = 1}, no_control_socket},
          Row{{.call = FaultCall::SOCKET, .error = EMFILE, .nth = 2}, ""},
          Row{{.call = FaultCall::BIND, .error = EACCES, .nth = 2}, "Cannot bind socket\n"},
          Row{{.call = FaultCall::LISTEN, .error = EADDRINUSE, .nth = 2}, "Cannot listen\n"}}) {
        const FaultWatch watch(row.plan);
        const ProgramRun run = run_server_to_its_end(with_injector());
        EXPECT_EQ(watch.page().injected, 1U) << row.text;
        EXPECT_EQ(run.end.status, 1) << row.text;
        EXPECT_EQ(run.err, row.text);
    }
}

TEST(refused_calls, a_started_server_has_made_no_other_socket) {
    for (const FaultCall call : {FaultCall::SOCKET, FaultCall::BIND, FaultCall::LISTEN}) {
        const FaultyServer faulty({.call = call});
        EXPECT_EQ(faulty.watch.page().seen, 2U);
    }
}

TEST(refused_calls, a_writer_needs_no_memory_that_could_be_refused) {
    FaultyServer faulty({.call = FaultCall::NEW,
                         .error = ENOMEM,
                         .within = ServerSymbols::get().within("writer_thread"),
                         .nth = 1});
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    for (std::uint32_t i = 1; i <= 200; ++i) {
        publisher.send_audio(1000, aac_frame(i));
    }
    for (std::uint32_t i = 1; i <= 200; ++i) {
        EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(i));
    }
    EXPECT_EQ(faulty.watch.page().injected, 0U);
}

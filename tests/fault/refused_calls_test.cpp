// One failing system call and all its consequences.
#include <gtest/gtest.h>

#include <string>

#include "tests/fault/faulty_server.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"

TEST(refused_calls, a_server_that_cannot_open_its_sockets_does_not_start_and_says_why) {
    struct Row {
        std::string plan;
        const char* text;
    };
    for (const Row& row :
         {Row{"new" + ServerSymbols::get().within("comm_socket_v4_create") + ":1:ENOMEM",
              "Failed to create comm socket\n"},
          Row{"socket:1:EMFILE", "Failed to create server socket\n"},
          Row{"bind:1:EACCES", "Failed to create server socket\n"},
          Row{"listen:1:EADDRINUSE", "Failed to create server socket\n"}, Row{"socket:2:EMFILE", ""},
          Row{"bind:2:EACCES", "Cannot bind socket\n"}, Row{"listen:2:EADDRINUSE", "Cannot listen\n"}}) {
        const FaultWatch watch;
        const FinishedRun run = run_server_to_its_end(with_faults(row.plan));
        EXPECT_EQ(watch.injected(), 1U) << row.plan;
        EXPECT_EQ(run.end.status, 1) << row.plan;
        EXPECT_EQ(run.err, row.text) << row.plan;
    }
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

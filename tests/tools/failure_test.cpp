#include "tools/v9_rtmp_ctl/failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <new>
#include <stdexcept>

#include "tests/tools/fake_server.h"

using testing::HasSubstr;
using testing::Not;

TEST(failure, every_error_has_its_exit_code) {
    struct Row {
        comm_socket_v4_error error;
        int exit_code;
    };
    const Row rows[] = {
        {COMM_SOCKET_V4_NO_SOCKET, 3},    {COMM_SOCKET_V4_REFUSED, 3},   {COMM_SOCKET_V4_PERMISSION, 4},
        {COMM_SOCKET_V4_BROKEN_FRAME, 5}, {COMM_SOCKET_V4_CLOSED, 5},    {COMM_SOCKET_V4_TOO_LARGE, 2},
        {COMM_SOCKET_V4_BAD_ARGUMENT, 2}, {COMM_SOCKET_V4_NO_MEMORY, 5}, {COMM_SOCKET_V4_SYSTEM, 5},
    };
    for (const Row& row : rows) {
        const Failure failure = describe_failure(row.error, "/run/socket");
        EXPECT_EQ(static_cast<int>(failure.exit_code), row.exit_code) << row.error;
        // What happened, and what to do next: two sentences, or one of two parts.
        EXPECT_THAT(failure.message, HasSubstr(". ")) << row.error;
        EXPECT_TRUE(failure.message.ends_with('.')) << row.error;
    }
}

TEST(failure, advice_to_start_a_server_is_given_only_for_its_own_socket) {
    for (const comm_socket_v4_error error : {COMM_SOCKET_V4_NO_SOCKET, COMM_SOCKET_V4_REFUSED}) {
        EXPECT_THAT(describe_failure(error, DEFAULT_SOCKET_PATH).message, HasSubstr("start v9_rtmp_server"));
        const std::string message = describe_failure(error, "/etc/passwd").message;
        EXPECT_THAT(message, Not(HasSubstr("start")));
        EXPECT_THAT(message, HasSubstr(std::string("v9_rtmp_server listens at ") + DEFAULT_SOCKET_PATH));
    }
    EXPECT_THAT(describe_failure(COMM_SOCKET_V4_REFUSED, "/etc/passwd").message,
                HasSubstr("/etc/passwd is a file and not a socket."));
    EXPECT_THAT(describe_failure(COMM_SOCKET_V4_REFUSED, "/etc").message,
                HasSubstr("is a directory and not a"));
}

TEST(failure, another_name_of_the_servers_socket_is_the_servers_socket) {
    const std::string directory = make_directory();
    const std::string link = directory + "/link";
    std::filesystem::create_directory_symlink("/var/run", link);
    EXPECT_TRUE(is_default_socket(DEFAULT_SOCKET_PATH));
    EXPECT_TRUE(is_default_socket(link + "/v9_rtmp_server.socket"));
    EXPECT_FALSE(is_default_socket(link + "/other.socket"));
    EXPECT_FALSE(is_default_socket(""));
    std::filesystem::remove_all(directory);
}

// After a second start by mistake, the first server still runs without its socket.
TEST(failure, advice_to_start_a_server_is_given_only_if_none_still_runs) {
    for (const comm_socket_v4_error error : {COMM_SOCKET_V4_NO_SOCKET, COMM_SOCKET_V4_REFUSED}) {
        const std::string message = describe_failure(error, DEFAULT_SOCKET_PATH).message;
        EXPECT_THAT(message, Not(HasSubstr("not running")));
        EXPECT_THAT(message,
                    HasSubstr("'v9_rtmp_ctl hello' shows whether a server is still running; if none is, "
                              "start v9_rtmp_server"));
    }
    const std::string still_there = no_server(DEFAULT_SOCKET_PATH, "process 7 listens. Stop it.").message;
    EXPECT_TRUE(still_there.ends_with("; process 7 listens. Stop it.")) << still_there;
    EXPECT_THAT(no_server(DEFAULT_SOCKET_PATH, "").message,
                HasSubstr(". No server was found: start v9_rtmp_server"));
}

TEST(failure, the_advice_for_a_short_timeout_says_that_the_server_polls_ten_times_a_second) {
    EXPECT_EQ(no_answer(50000).exit_code, ExitCode::NO_REPLY);
    EXPECT_THAT(no_answer(50000).message,
                HasSubstr("(0.05 s). It polls its control socket ten times a second"));
    EXPECT_THAT(no_answer(5000000).message, HasSubstr("wait longer with --timeout"));
}

TEST(failure, there_is_no_advice_to_restart_a_server_that_is_sending) {
    const Failure failure = answer_too_long(60000000);
    EXPECT_EQ(failure.exit_code, ExitCode::NO_REPLY);
    EXPECT_THAT(failure.message, HasSubstr("still sending its answer after 60 s"));
    EXPECT_THAT(failure.message, Not(HasSubstr("restart")));
}

TEST(failure, the_exit_status_of_several_results_is_the_worst) {
    EXPECT_EQ(worse_of(ExitCode::DONE, ExitCode::NEGATIVE_ANSWER), ExitCode::NEGATIVE_ANSWER);
    EXPECT_EQ(worse_of(ExitCode::ANOTHER_CLIENT, ExitCode::NO_REPLY), ExitCode::ANOTHER_CLIENT);
}

TEST(failure, a_socket_path_cannot_control_the_terminal) {
    EXPECT_THAT(describe_failure(COMM_SOCKET_V4_NO_SOCKET, "/x\x1b[2J").message, HasSubstr("/x\\x1B[2J"));
    EXPECT_THAT(refused_by_server("a\nb").message, HasSubstr("a\\x0Ab"));
    EXPECT_EQ(refused_by_server("x").exit_code, ExitCode::NEGATIVE_ANSWER);
    EXPECT_EQ(unreadable_reply("x").exit_code, ExitCode::NO_REPLY);
}

TEST(failure, is_reported_on_standard_error) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(report({ExitCode::PERMISSION, "no. Do this."}), ExitCode::PERMISSION);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "v9_rtmp_ctl: no. Do this.\n");
}

TEST(failure, an_exception_is_lack_of_memory_or_a_bug) {
    EXPECT_EQ(gave_up(std::bad_alloc()).message, "there is not enough memory. Free some and try again.");
    EXPECT_EQ(gave_up(std::out_of_range("stod")).message,
              "gave up: stod. This is a bug: report it with the command line that shows it.");
}

#include "tools/v9_rtmp_ctl/hook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

using testing::Optional;

namespace {

class hook_test : public testing::Test {
  protected:
    ~hook_test() override { std::filesystem::remove_all(directory); }

    // Runs a shell script; what it writes to "$0.out" is its output.
    std::optional<std::string> run(const std::string& script, std::uint64_t max_us = MAX_HOOK_US) {
        std::filesystem::create_directories(directory);
        std::ofstream(program) << "#!/bin/sh\n" << script << "\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        sigset_t mask;
        sigemptyset(&mask);
        return run_hook(program,
                        {{"V9_EVENT", "play"}, {"V9_STREAM", "a b;$(touch owned)'\""}, {"V9_MODE", ""}}, mask,
                        max_us);
    }

    std::string output() const {
        std::ostringstream text;
        text << std::ifstream(program + ".out").rdbuf();
        return text.str();
    }

    const std::filesystem::path directory =
        std::filesystem::path(testing::TempDir()) /
        ("hook " + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
    const std::string program = directory / "program";
};

}  // namespace

TEST_F(hook_test, gets_values_in_its_environment_and_no_arguments) {
    EXPECT_EQ(run(R"(echo "$# $V9_EVENT $V9_STREAM ${V9_MODE-unset}." > "$0.out"; cat >> "$0.out")"),
              std::nullopt);
    EXPECT_EQ(output(), "0 play a b;$(touch owned)'\" .\n");
}

TEST_F(hook_test, that_fails_is_reported) {
    EXPECT_THAT(run("exit 3"), Optional(std::string("exited with status 3")));
    EXPECT_THAT(run("kill -TERM $$"), Optional(std::string("was killed by signal 15")));
    sigset_t mask;
    sigemptyset(&mask);
    EXPECT_THAT(run_hook("/absent/program", {}, mask),
                Optional(std::string("could not be started (No such file or directory)")));
}

TEST_F(hook_test, is_waited_for_although_a_parent_ignored_the_end_of_children) {
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run("exit 0"), std::nullopt);
    EXPECT_THAT(run("exit 3"), Optional(std::string("exited with status 3")));
}

TEST_F(hook_test, that_does_not_end_is_killed) {
    EXPECT_THAT(run("exec sleep 100", 1000000),
                Optional(std::string("ran for more than 1 s and was killed")));
}

TEST_F(hook_test, has_its_output_on_standard_error_and_not_between_the_event_lines) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(run("echo text"), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "text\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(hook_test, that_is_killed_leaves_no_child_process) {
    // Each of the programs holds the writing end.
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    EXPECT_THAT(run("sleep 100 & sleep 100", 1000000),
                Optional(std::string("ran for more than 1 s and was killed")));
    close(ends[1]);
    pollfd reading{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&reading, 1, 10000), 1) << "a program still runs";
    close(ends[0]);
}

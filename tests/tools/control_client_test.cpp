#include "tools/v9_rtmp_ctl/control_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "tests/tools/fake_server.h"

using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr std::uint64_t TIMEOUT_US = 5000000;
constexpr std::uint64_t SHORT_TIMEOUT_US = 50000;

ExitCode exit_code_of_call(const std::string& path, std::uint64_t timeout_us) {
    ControlClient client(path, timeout_us);
    Reply reply;
    const std::optional<Failure> failure = client.call({"hello", {}}, reply);
    return failure ? failure->exit_code : ExitCode::DONE;
}

// Accepts one client, reads its request, sends it these bytes, and then closes the connection if asked to.
class RudeServer {
  public:
    explicit RudeServer(std::string bytes, bool closes) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 4), 0);
        thread = std::thread([this, bytes, closes] {
            client = accept(listener, nullptr, nullptr);
            char request[256];
            EXPECT_GT(recv(client, request, sizeof request, 0), 0);
            EXPECT_EQ(send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(bytes.size()));
            if (closes) {
                shutdown(client, SHUT_RDWR);
            }
        });
    }
    ~RudeServer() {
        thread.join();
        close(client);
        close(listener);
        std::filesystem::remove_all(directory);
    }
    RudeServer(const RudeServer&) = delete;
    RudeServer& operator=(const RudeServer&) = delete;

    [[nodiscard]] std::string path() const { return directory + "/socket"; }

  private:
    const std::string directory = make_directory();
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int client = -1;
    std::thread thread;
};

}  // namespace

TEST(control_client, calls_and_reads_the_whole_reply) {
    std::vector<Request> requests;
    const FakeServer server([&requests](const Request& request, bool async) {
        EXPECT_FALSE(async);
        requests.push_back(request);
        return Reply{
            6, request.command, std::string("a\0b", 3), {{"n", "1"}, {"n", std::string("\0\xff", 2)}}};
    });
    {
        ControlClient client(server.path(), TIMEOUT_US);
        Reply reply;
        ASSERT_FALSE(client.call({"any thing", {"", "-1", std::string("x\0y", 3)}}, reply));
        EXPECT_EQ(reply.status, 6U);
        EXPECT_EQ(reply.command, "any thing");
        EXPECT_EQ(reply.message, "a");  // the fake server writes it as a C string
        EXPECT_THAT(reply.pairs, ElementsAre(Pair("n", "1"), Pair("n", std::string("\0\xff", 2))));
    }
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_THAT(requests[0].arguments, ElementsAre("", "-1", std::string("x\0y", 3)));
}

TEST(control_client, every_kind_of_failure_has_its_exit_code) {
    const std::string directory = make_directory();
    EXPECT_EQ(exit_code_of_call(directory + "/none", TIMEOUT_US), ExitCode::NOT_RUNNING);
    EXPECT_EQ(exit_code_of_call(std::string(200, 'x'), TIMEOUT_US), ExitCode::USAGE);
    EXPECT_EQ(exit_code_of_call("", TIMEOUT_US), ExitCode::USAGE);
    std::filesystem::remove_all(directory);
    const RudeServer silent("", false);
    EXPECT_EQ(exit_code_of_call(silent.path(), SHORT_TIMEOUT_US), ExitCode::NO_REPLY);
    const RudeServer garbage("HTTP/1.0 400 Bad Request\r\n\r\n", false);
    EXPECT_EQ(exit_code_of_call(garbage.path(), TIMEOUT_US), ExitCode::NO_REPLY);
    const RudeServer closing("", true);
    EXPECT_EQ(exit_code_of_call(closing.path(), TIMEOUT_US), ExitCode::NO_REPLY);
    const RudeServer half_a_frame(std::string("CS\4\0\0\0\0\x40", 8), true);
    EXPECT_EQ(exit_code_of_call(half_a_frame.path(), TIMEOUT_US), ExitCode::NO_REPLY);
}

TEST(control_client, a_request_above_a_limit_is_a_usage_error) {
    const FakeServer server([](const Request& request, bool) { return Reply{0, request.command, "", {}}; });
    ControlClient client(server.path(), TIMEOUT_US);
    Reply reply;
    EXPECT_FALSE(client.call({"c", std::vector<std::string>(64, "x")}, reply));
    const std::optional<Failure> failure = client.call({"c", std::vector<std::string>(65, "x")}, reply);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->exit_code, ExitCode::USAGE);
}

TEST(control_client, connects_to_a_server_that_has_replaced_the_previous_one) {
    const std::string directory = make_directory();
    const std::string path = directory + "/socket";
    ControlClient client(path, TIMEOUT_US);
    for (const std::string name : {"first", "second"}) {
        const FakeServer server([&name](const Request& request, bool) {
            return Reply{0, request.command, name, {}};
        });
        std::filesystem::remove(path);
        std::filesystem::create_symlink(server.path(), path);
        Reply reply;
        EXPECT_FALSE(client.call({"hello", {}}, reply)) << name;
        EXPECT_EQ(reply.message, name);
    }
    std::filesystem::remove_all(directory);
}

TEST(control_client, connects_again_after_a_failure) {
    bool silent = true;
    const FakeServer server([&silent](const Request& request, bool) {
        const bool skip = std::exchange(silent, false);
        return skip ? std::nullopt : std::optional(Reply{0, request.command, "", {}});
    });
    ControlClient client(server.path(), 500000);
    Reply reply;
    ASSERT_TRUE(client.call({"c", {}}, reply));
    EXPECT_EQ(client.fd(), -1);
    EXPECT_FALSE(client.call({"c", {}}, reply));
    EXPECT_GE(client.fd(), 0);
}

TEST(control_client, a_started_request_is_polled_for_its_reply) {
    const FakeServer server([](const Request& request, bool) { return Reply{0, request.command, "", {}}; });
    ControlClient client(server.path(), TIMEOUT_US);
    ASSERT_FALSE(client.start({{"one", {}}, {"two", {}}}));
    for (const char* const command : {"one", "two"}) {
        Reply reply;
        bool found = false;
        ASSERT_FALSE(client.poll_reply(reply, found));  // it may have arrived with the previous one
        while (!found) {
            pollfd ready = {client.fd(), POLLIN, 0};
            ASSERT_EQ(poll(&ready, 1, 5000), 1);
            ASSERT_FALSE(client.poll_reply(reply, found));
        }
        EXPECT_EQ(reply.command, command);
    }
}

TEST(control_client, several_requests_get_their_replies_in_order) {
    const FakeServer server([](const Request& request, bool) { return Reply{0, request.command, "", {}}; });
    ControlClient client(server.path(), TIMEOUT_US);
    std::vector<Reply> replies;
    ASSERT_FALSE(client.call_all({{"one", {}}, {"two", {}}, {"three", {}}}, replies));
    ASSERT_EQ(replies.size(), 3U);
    EXPECT_EQ(replies[0].command, "one");
    EXPECT_EQ(replies[2].command, "three");
}

TEST(control_client, a_reply_that_keeps_arriving_may_take_longer_than_the_silence) {
    for (const std::uint64_t silence_s : {0U, 1U, 5U, 60U, 61U, 1000U}) {
        const std::uint64_t silence_us = silence_s * 1000000;
        EXPECT_GT(longest_reply_us(silence_us), silence_us);
    }
    EXPECT_EQ(longest_reply_us(5000000), 60000000U);
}

TEST(listing, only_connection_pairs_are_read) {
    Listing listing;
    ASSERT_FALSE(read_listing({0,
                               "",
                               "",
                               {{"connection field order", "a,b"},
                                {"connection", "1\ta\tplay\t\t1\t2\tx"},
                                {"uptime", "5"},
                                {"connection", "2\t\t\t\t\t\t"}}},
                              listing));
    ASSERT_EQ(listing.connections.size(), 2U);
    EXPECT_EQ(listing.connections[1].id, 2U);
}

TEST(listing, a_bad_line_or_status_is_a_failure) {
    Listing listing;
    std::optional<Failure> failure = read_listing({0, "", "", {{"connection", "what"}}}, listing);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->exit_code, ExitCode::NO_REPLY);
    failure = read_listing({6, "", "Unknown command", {}}, listing);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->exit_code, ExitCode::NEGATIVE_ANSWER);
}

TEST(listing, a_mode_is_passed_only_when_there_is_one) {
    EXPECT_TRUE(list_request("").arguments.empty());
    EXPECT_THAT(list_request("play").arguments, ElementsAre("play"));
}

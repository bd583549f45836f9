// The first 3073 bytes in each direction, and every way they can be wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <vector>

#include "tests/support/expected_replies.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/unseeded_rand.h"

namespace {

constexpr std::size_t BLOCK = 1536;

const std::vector<std::string> END_OF_FAILED_HANDSHAKE = {"RTMP handshake failed", "Thread 1 died",
                                                          "WARNING: Thread terminated unexpectedly",
                                                          "Dropping connection", "Disposing old stream ''"};

void expect_handshake_failure(const ServerProcess& server, const std::string& message, LineMark from = 0) {
    std::vector<std::string> lines = END_OF_FAILED_HANDSHAKE;
    lines.insert(lines.begin(), message);
    server.wait_for_lines(lines, from);
    EXPECT_EQ(server.count("RTMP handshake complete", from), 0U);
}

// Returns the S1 of a process that has not drawn a random number before.
Bytes first_s1() {
    UnseededRand numbers;
    Bytes s1(8, '\0');
    for (const unsigned char byte : numbers.handshake_bytes()) {
        s1.push_back(static_cast<char>(byte));
    }
    return s1;
}

bool nothing_was_sent(RtmpClient& client) {
    try {
        (void)client.read_bytes(1);
        return false;
    } catch (const std::runtime_error&) {
        return true;
    }
}

bool something_arrives(const RtmpClient& client, Milliseconds wait) {
    pollfd entry{client.descriptor(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(wait.count())) > 0;
}

}  // namespace

TEST(handshake, answers_with_the_version_then_random_bytes_then_an_echo) {
    ServerProcess server;
    RtmpClient client;
    HandshakeOptions options;
    const HandshakeReply reply = client.handshake(options);
    EXPECT_EQ(reply.s0, bytes_of({3}));
    EXPECT_EQ(reply.s1.substr(0, 8), Bytes(8, '\0'));
    Bytes echo = options.c1;
    ASSERT_NE(echo.substr(4, 4), Bytes(4, '\0'));
    echo.replace(4, 4, 4, '\0');
    EXPECT_EQ(reply.s2, echo);
    server.wait_for_line("RTMP handshake complete");
}

TEST(handshake, the_random_bytes_are_the_same_in_every_fresh_server) {
    for (int run = 0; run < 2; ++run) {
        ServerProcess server;
        RtmpClient client;
        const HandshakeReply reply = client.handshake();
        EXPECT_EQ(to_hex(reply.s1.substr(8, 20)),
                  "67 C6 69 73 51 FF 4A EC 29 CD BA AB F2 FB E3 46 7C C2 54 F8");
        EXPECT_EQ(to_hex(reply.s1.substr(BLOCK - 8)), "21 C2 C5 9A 8E 53 FD 90");
        EXPECT_EQ(reply.s1, first_s1());
    }
}

TEST(handshake, the_next_client_gets_the_next_random_bytes) {
    ServerProcess server;
    RtmpClient first;
    (void)first.handshake();
    RtmpClient second;
    const HandshakeReply reply = second.handshake();
    UnseededRand numbers;
    (void)numbers.handshake_bytes();
    const auto expected = numbers.handshake_bytes();
    EXPECT_EQ(to_hex(reply.s1.substr(8)),
              to_hex({reinterpret_cast<const char*>(expected.data()), expected.size()}));
}

TEST(handshake, a_client_that_fails_before_its_random_bytes_are_due_draws_none) {
    ServerProcess server;
    RtmpClient broken;
    broken.send_bytes(bytes_of({3, 'a', 'b', 'c'}));
    broken.half_close();
    expect_handshake_failure(server, "C1 fail");
    RtmpClient next;
    EXPECT_EQ(to_hex(next.handshake().s1), to_hex(first_s1()));
}

TEST(handshake, each_answer_waits_for_the_bytes_that_it_answers) {
    ServerProcess server;
    RtmpClient client;
    EXPECT_FALSE(something_arrives(client, Milliseconds{100})) << "nothing before the client's version";
    const Bytes c1 = pattern_bytes(BLOCK, 3);
    client.send_bytes(bytes_of({3}));
    EXPECT_EQ(client.read_bytes(1), bytes_of({3}));
    client.send_bytes(c1.substr(0, BLOCK - 1));
    EXPECT_FALSE(something_arrives(client, Milliseconds{100})) << "only the version before the whole block";
    client.send_bytes(c1.substr(BLOCK - 1));
    EXPECT_EQ(client.read_bytes(2 * BLOCK).size(), 2 * BLOCK);
    EXPECT_EQ(server.count("RTMP handshake complete"), 0U);
}

TEST(handshake, works_in_pieces_of_any_size) {
    ServerProcess server;
    const std::vector<std::vector<std::size_t>> rows = {
        {1}, {2}, {1, 1535}, {1536}, {1000, 1, 1}, std::vector<std::size_t>(1537, 1)};
    for (const std::vector<std::size_t>& pieces : rows) {
        RtmpClient client;
        HandshakeOptions options;
        options.pieces = pieces;
        (void)client.handshake(options);
        (void)client.connect_app();
    }
}

TEST(handshake, works_when_everything_arrives_at_once) {
    ServerProcess server;
    RtmpClient client;
    const Bytes connect =
        amf_string("connect") + amf_number(1) + amf_object({{"app", amf_string("ombrex-live")}});
    // A new server's bytes are known before it sends them.
    client.send_bytes(bytes_of({3}) + pattern_bytes(BLOCK) + first_s1() + chunked({.payload = connect}));
    (void)client.read_bytes(1 + 2 * BLOCK);
    EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, testing::StartsWith(amf_string("_result")));
}

TEST(handshake, another_version_is_refused_without_an_answer) {
    for (const int version : {6, 0, 2, 4, 0xFF}) {
        ServerProcess server;
        RtmpClient client;
        client.send_bytes(bytes_of({version}));
        (void)client.expect_closed();
        EXPECT_TRUE(nothing_was_sent(client));
        expect_handshake_failure(server, "C0 fail");
    }
}

TEST(handshake, a_client_that_sends_nothing_and_leaves_fails_at_the_version) {
    ServerProcess server;
    RtmpClient().close();
    expect_handshake_failure(server, "C0 fail");
}

TEST(handshake, a_close_inside_the_first_block_fails_there) {
    ServerProcess server;
    for (const std::size_t sent : {0UL, 1UL, 100UL, BLOCK - 1}) {
        const LineMark mark = server.mark();
        RtmpClient client;
        client.send_bytes(bytes_of({3}) + pattern_bytes(sent));
        EXPECT_EQ(client.read_bytes(1), bytes_of({3}));
        client.half_close();
        (void)client.expect_closed();
        expect_handshake_failure(server, "C1 fail", mark);
    }
}

TEST(handshake, a_close_inside_the_second_block_fails_there) {
    ServerProcess server;
    for (const std::size_t sent : {0UL, 1UL, BLOCK - 1}) {
        const LineMark mark = server.mark();
        RtmpClient client;
        client.send_bytes(bytes_of({3}) + pattern_bytes(BLOCK));
        const Bytes s1 = client.read_bytes(1 + 2 * BLOCK).substr(1, BLOCK);
        client.send_bytes(s1.substr(0, sent));
        client.half_close();
        (void)client.expect_closed();
        expect_handshake_failure(server, "C2 fail", mark);
    }
}

TEST(handshake, the_second_block_may_differ_in_its_second_four_bytes_only) {
    ServerProcess server;
    for (const std::size_t position : {4UL, 5UL, 6UL, 7UL}) {
        RtmpClient client;
        HandshakeOptions options;
        options.change_c2 = [position](Bytes& c2) { c2[position] = static_cast<char>(c2[position] ^ 0x5A); };
        (void)client.handshake(options);
        (void)client.connect_app();
    }
}

TEST(handshake, a_second_block_that_is_not_an_echo_is_refused) {
    ServerProcess server;
    for (const std::size_t position : {0UL, 1UL, 2UL, 3UL, 8UL, 700UL, BLOCK - 1}) {
        const LineMark mark = server.mark();
        RtmpClient client;
        HandshakeOptions options;
        options.change_c2 = [position](Bytes& c2) { c2[position] = static_cast<char>(c2[position] ^ 0x01); };
        (void)client.handshake(options);
        (void)client.expect_closed_without_answer();
        expect_handshake_failure(server, "C2 fail", mark);
    }
}

TEST(handshake, fails_when_the_client_has_closed_before_the_version_is_answered) {
    ServerProcess server;
    server.pause();
    RtmpClient client;
    client.send_bytes(bytes_of({3}));
    client.close_with_reset();
    server.resume();
    expect_handshake_failure(server, "S0 fail");
}

TEST(handshake, fails_when_the_client_has_closed_before_the_random_bytes_are_sent) {
    ServerProcess server;
    server.pause();
    RtmpClient client;
    client.send_bytes(bytes_of({3}) + pattern_bytes(BLOCK));
    client.close();
    server.resume();
    expect_handshake_failure(server, "S1 fail");
}

TEST(handshake, fails_when_the_client_has_closed_before_the_echo_is_sent) {
    ServerProcess server;
    RtmpClient client;
    client.send_bytes(bytes_of({3}));
    EXPECT_EQ(client.read_bytes(1), bytes_of({3}));
    server.pause();
    client.send_bytes(pattern_bytes(BLOCK));
    client.close();
    server.resume();
    expect_handshake_failure(server, "S2 fail");
}

TEST(handshake, a_failed_handshake_does_not_affect_other_clients) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient broken;
    broken.send_bytes(bytes_of({9}));
    (void)broken.expect_closed();
    EXPECT_TRUE(player.round_trip().empty());
}

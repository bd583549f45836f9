// The lifetime of the control socket: who may connect, how it is lost and what works without it, and clients
// that leave before their reply arrives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string LOST = "Lost server socket";
const std::string UNSENT = "Unable to send packet: Broken pipe";
// Longer than the interval between polls of the control socket.
constexpr Milliseconds PAST_A_SERVICE{150};

// Removes what a test leaves at the control socket's path.
struct CleanSocketPath {
    CleanSocketPath() { std::filesystem::remove_all(CONTROL_SOCKET_PATH); }
    ~CleanSocketPath() { std::filesystem::remove_all(CONTROL_SOCKET_PATH); }
};

void expect_greeted() {
    ControlPeer peer;
    EXPECT_EQ(peer.ask("hello").message, "How are you?");
}

// Identifies the socket at the path while it exists: two that exist at the same time have different numbers.
ino_t socket_inode() {
    struct stat found {};
    if (stat(CONTROL_SOCKET_PATH.c_str(), &found) != 0) {
        throw TestFailure("there is nothing at " + CONTROL_SOCKET_PATH);
    }
    return found.st_ino;
}

// Requires that media is relayed and new clients are served.
void expect_relaying() {
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
}

// The server receives this while it is stopped; when it continues, a poll is due.
void send_while_paused(ServerProcess& server, ControlPeer& peer, const Bytes& bytes) {
    const TimePoint start = SteadyClock::now();
    server.pause();
    peer.send_bytes(bytes);
    std::this_thread::sleep_until(start + PAST_A_SERVICE);
}

Bytes hellos(std::uint64_t count) {
    Bytes requests;
    for (std::uint64_t id = 1; id <= count; ++id) {
        requests += control_request(id, "hello");
    }
    return requests;
}

}  // namespace

// ---- who may connect

TEST(control_socket, it_is_open_to_its_owner_and_group_whatever_the_umask) {
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{0777}}) {
        const CleanSocketPath clean;
        const mode_t before = umask(mask);
        const ServerProcess server;
        umask(before);
        struct stat found {};
        ASSERT_EQ(stat(CONTROL_SOCKET_PATH.c_str(), &found), 0);
        EXPECT_TRUE(S_ISSOCK(found.st_mode));
        EXPECT_EQ(found.st_mode & 07777U, 0660U) << std::oct << mask;
        EXPECT_EQ(found.st_uid, geteuid());
    }
}

TEST(control_socket, a_stale_socket_is_replaced) {
    const CleanSocketPath clean;
    ServerProcess killed;
    const ControlPeer left_behind;
    killed.kill();
    ASSERT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH));
    EXPECT_THROW(ControlPeer{}, TestFailure) << "nobody listens any more";
    ServerOptions options;
    options.beside_another = true;
    const ServerProcess server(options);
    expect_greeted();
}

TEST(control_socket, a_file_in_its_place_is_replaced) {
    const CleanSocketPath clean;
    std::ofstream(CONTROL_SOCKET_PATH) << "left over";
    const ServerProcess server;
    expect_greeted();
}

// ---- lost

TEST(control_socket, when_its_path_is_removed_the_server_reports_it_and_keeps_relaying) {
    const CleanSocketPath clean;
    ServerProcess server;
    RtmpClient publisher = publishing_client("before");
    RtmpClient player = playing_client("before");
    ControlPeer peer;
    EXPECT_THAT(peer.ask("list connections").values("connection"), SizeIs(2));
    const LineMark mark = server.mark();
    std::filesystem::remove(CONTROL_SOCKET_PATH);
    server.wait_for_line(LOST, mark);
    peer.expect_closed();
    publisher.send_audio(1000, aac_frame(1));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    expect_relaying();
    EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH)) << "it is not made again";
    server.stop();
    EXPECT_EQ(server.count(LOST), 1U);
}

TEST(control_socket, a_file_that_replaced_it_is_kept) {
    const CleanSocketPath clean;
    ServerProcess server;
    std::filesystem::remove(CONTROL_SOCKET_PATH);
    std::ofstream(CONTROL_SOCKET_PATH) << "somebody else's";
    server.wait_for_line(LOST);
    expect_relaying();
    server.stop();
    EXPECT_TRUE(std::filesystem::is_regular_file(CONTROL_SOCKET_PATH));
    EXPECT_EQ(server.count(LOST), 1U);
}

TEST(control_socket, a_second_server_takes_it_over_and_keeps_it_when_the_first_ends) {
    const CleanSocketPath clean;
    ServerProcess first;
    ControlPeer peer_of_first;
    EXPECT_EQ(peer_of_first.ask("hello").message, "How are you?");
    const ino_t inode_of_first = socket_inode();
    ServerOptions options;
    options.beside_another = true;
    ServerProcess second(options);
    first.wait_for_line(LOST);
    peer_of_first.expect_closed();
    const ino_t inode = socket_inode();
    expect_greeted();
    first.stop();
    EXPECT_EQ(socket_inode(), inode);
    expect_greeted();
    expect_relaying();
    second.stop();
    EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH));
    EXPECT_EQ(first.count(LOST), 1U);
    EXPECT_EQ(second.count(LOST), 0U);
    EXPECT_NE(inode, inode_of_first);
}

TEST(control_socket, a_server_that_never_lost_it_removes_it_when_it_ends) {
    const CleanSocketPath clean;
    ServerProcess server;
    expect_greeted();
    server.stop();
    EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH));
    EXPECT_EQ(server.count(LOST), 0U);
}

// ---- clients that leave

TEST(control_socket, a_client_that_leaves_before_its_reply_causes_one_line_and_affects_no_other_client) {
    ServerProcess server;
    RtmpClient client = connected_client();
    ControlPeer stays;
    ControlPeer leaves;
    const LineMark mark = server.mark();
    send_while_paused(server, leaves, hellos(1));
    stays.send_bytes(hellos(1));
    leaves.close();
    server.resume();
    EXPECT_EQ(stays.read_reply().message, "How are you?");
    server.wait_for_line(UNSENT, mark);
    (void)stays.ask("hello");
    EXPECT_THAT(server.lines_since(mark), ElementsAre(UNSENT));
    EXPECT_THAT(client.round_trip(), IsEmpty());
}

TEST(control_socket, a_request_sent_before_leaving_is_still_executed) {
    ServerProcess server;
    RtmpClient client = connected_client();
    ControlPeer leaves;
    const LineMark mark = server.mark();
    send_while_paused(server, leaves,
                      control_request(1, "foo") + control_request(2, "drop connection by id", {"0"}));
    leaves.close();
    server.resume();
    server.wait_for_lines({"Unknown command 'foo'", UNSENT, UNSENT, "Dropping connection"}, mark);
    client.expect_closed_without_answer();
}

TEST(control_socket, a_client_that_only_stops_sending_gets_its_replies) {
    const ServerProcess server;
    ControlPeer peer;
    peer.send_bytes(hellos(3));
    peer.half_close();
    for (std::uint64_t id = 1; id <= 3; ++id) {
        EXPECT_EQ(peer.read_reply().request_id, id);
    }
    peer.expect_closed();
    expect_greeted();
}

TEST(control_socket, a_request_cut_short_by_a_close_is_ignored) {
    const ServerProcess server;
    const RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    const Bytes request = control_request(1, "drop connection by stream name", {""});
    for (const std::size_t part : {std::size_t{0}, std::size_t{1}, std::size_t{8}, request.size() - 1}) {
        ControlPeer peer;
        peer.send_bytes(request.substr(0, part));
        peer.half_close();
        peer.expect_closed();
    }
    ControlPeer peer;
    EXPECT_THAT(peer.ask("list connections").values("connection"), SizeIs(1));
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(control_socket, the_sixty_fifth_client_is_refused_until_another_one_leaves) {
    constexpr std::size_t PLACES = 64;
    const ServerProcess server;
    std::vector<ControlPeer> peers;
    for (std::size_t i = 0; i < PLACES; ++i) {
        peers.emplace_back();
        peers.back().send_bytes(hellos(1));
    }
    for (ControlPeer& peer : peers) {
        EXPECT_EQ(peer.read_reply().message, "How are you?");
    }
    ControlPeer().expect_closed();
    peers[17].close();
    // A client that connects during the poll that rejected another may find the place still taken. The second
    // of these is answered in a poll that began after the place became free.
    (void)peers.back().ask("hello");
    (void)peers.back().ask("hello");
    expect_greeted();
}

// ---- the end

TEST(control_socket, requests_that_wait_at_shutdown_are_not_answered_and_shutdown_is_orderly) {
    ServerProcess server;
    RtmpClient client = connected_client();
    ControlPeer peer;
    EXPECT_EQ(peer.ask("hello").message, "How are you?");
    const LineMark mark = server.mark();
    // More requests than one poll handles. Their effect would be visible if they were carried out.
    send_while_paused(server, peer, control_request(1, "foo") + hellos(200));
    server.send_signal(SIGTERM);
    server.resume();
    peer.expect_closed();
    EXPECT_EQ(server.wait_for_exit().status, 0);
    EXPECT_EQ(server.count("Unknown command 'foo'", mark), 0U);
    EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH));
}

TEST(control_socket, a_shutdown_in_the_middle_of_many_requests_is_orderly) {
    ServerProcess server;
    ControlPeer peer;
    peer.send_bytes(hellos(2000));
    EXPECT_EQ(peer.read_reply().request_id, 1U);
    EXPECT_LT(server.stop(), scaled(Milliseconds{1000}));
    std::uint64_t last_id = 1;
    EXPECT_THROW(
        while (true) { last_id = peer.read_reply().request_id; }, TestFailure);
    EXPECT_LT(last_id, 2000U);
}

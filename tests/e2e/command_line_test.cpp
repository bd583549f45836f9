// Arguments, start, stop and exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "tests/support/control_peer.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

const std::string USAGE =
    "  --dbg-pkt     Debug packet conversation (without A/V content)\n"
    "  --no-def-ack  Do not send ACK packets unless asked to.\n";

// Removes what a test leaves at the control socket's path.
struct CleanSocketPath {
    CleanSocketPath() { std::filesystem::remove_all(CONTROL_SOCKET_PATH); }
    ~CleanSocketPath() { std::filesystem::remove_all(CONTROL_SOCKET_PATH); }
};

void expect_refusal(const std::vector<std::string>& arguments, const std::string& text) {
    ServerOptions options;
    options.arguments = arguments;
    const ProgramRun run = run_server_to_its_end(options);
    const std::string shown = testing::PrintToString(arguments);
    EXPECT_EQ(run.end.status, 1) << shown;
    EXPECT_EQ(run.err, text) << shown;
    EXPECT_EQ(run.out, "") << shown;
}

// A listener on the server's port that does not share it.
class PortOwner {
  public:
    PortOwner() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(1935);
        // Allows for earlier connections on the port that linger. This listener still blocks the server.
        const int on = 1;
        if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
            bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd, 1) != 0) {
            ADD_FAILURE() << "cannot take port 1935";
        }
    }
    ~PortOwner() { close(fd); }
    PortOwner(const PortOwner&) = delete;
    PortOwner& operator=(const PortOwner&) = delete;

  private:
    int fd;
};

// An empty /dev, as in a bare chroot.
class BareDev {
  public:
    BareDev() { checked(mount("tmpfs", "/dev", "tmpfs", 0, nullptr), "mounting a tmpfs on /dev"); }
    ~BareDev() { umount("/dev"); }
    BareDev(const BareDev&) = delete;
    BareDev& operator=(const BareDev&) = delete;
};

void leave_stale_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    CONTROL_SOCKET_PATH.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(fd);
    ASSERT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH));
}

// A server whose main thread blocks in a write to its log, which is not read.
class StuckServer {
  public:
    StuckServer() : server(options()), client(handshaken_client()) {
        server.pause_draining_stderr();
        const AmfMembers members{{"long", amf_string(std::string(30000, 'x'))}};
        client.send_command(amf_string("connect") + amf_number(1) + amf_object(members));
        EXPECT_TRUE(holds_within(DEFAULT_WAIT, [this] { return server.main_thread_writes_to_stderr(); }))
            << "the server does not hang in its log";
    }

    ServerProcess server;

  private:
    static constexpr int PIPE_BYTES = 4096;

    static ServerOptions options() {
        ServerOptions result;
        result.stderr_pipe_bytes = PIPE_BYTES;
        return result;
    }

    RtmpClient client;
};

// In either order: the reader thread acknowledges the request while the main thread may already reply.
void expect_acknowledgement_and_answer(RtmpClient& client) {
    std::set<int> types{client.read_any_message().type};
    types.insert(client.read_any_message().type);
    EXPECT_EQ(types, (std::set<int>{MSG_ACKNOWLEDGEMENT, MSG_COMMAND}));
}

}  // namespace

TEST(command_line, help_prints_the_usage_and_exits_with_1) {
    for (const char* argument : {"-h", "--h", "---h", "-help", "--help", "---help"}) {
        expect_refusal({argument}, USAGE);
    }
}

TEST(command_line, switches_are_whole_words_in_lower_case) {
    expect_refusal({"-hx"}, "Unhandled switch hx\n");
    expect_refusal({"--HELP"}, "Unhandled switch HELP\n");
    expect_refusal({"--hel"}, "Unhandled switch hel\n");
    expect_refusal({"--dbg-pkt=1"}, "Unhandled switch dbg-pkt=1\n");
    expect_refusal({"--no-def-ac"}, "Unhandled switch no-def-ac\n");
    expect_refusal({"--help "}, "Unhandled switch help \n");
}

TEST(command_line, an_argument_of_dashes_is_a_switch_without_a_name) {
    expect_refusal({"-"}, "Unhandled switch \n");
    expect_refusal({"--"}, "Unhandled switch \n");
}

TEST(command_line, an_argument_without_a_dash_is_refused) {
    expect_refusal({"foo"}, "Unhandled arg 'foo'\n");
    expect_refusal({""}, "Unhandled arg ''\n");
    expect_refusal({"x--help"}, "Unhandled arg 'x--help'\n");
}

TEST(command_line, the_first_argument_that_ends_the_program_decides) {
    expect_refusal({"--help", "--bogus"}, USAGE);
    expect_refusal({"--bogus", "--help"}, "Unhandled switch bogus\n");
    expect_refusal({"foo", "--help"}, "Unhandled arg 'foo'\n");
    expect_refusal({"--dbg-pkt", "--no-def-ack", "--dbg-pkt", "foo"}, "Unhandled arg 'foo'\n");
}

TEST(command_line, an_argument_is_never_used_as_a_format_string) {
    expect_refusal({"--%s%n"}, "Unhandled switch %s%n\n");
    expect_refusal({"%d%s"}, "Unhandled arg '%d%s'\n");
}

TEST(command_line, both_switches_work_together_in_any_order_and_repeated) {
    const std::vector<std::vector<std::string>> rows = {
        {"--no-def-ack", "--dbg-pkt"},
        {"-dbg-pkt", "---no-def-ack"},
        {"--dbg-pkt", "--no-def-ack", "--dbg-pkt", "--no-def-ack"},
    };
    for (const std::vector<std::string>& arguments : rows) {
        ServerProcess server(arguments);
        RtmpClient client = handshaken_client();
        client.send_connect();
        EXPECT_EQ(client.read_any_message().type, MSG_COMMAND) << "an acknowledgement came first";
        client.send_create_stream();
        EXPECT_EQ(client.read_any_message().type, MSG_COMMAND) << "an acknowledgement came first";
        EXPECT_EQ(server.err().count("Sending:"), 2U);
    }
}

TEST(command_line, without_switches_messages_are_acknowledged_and_not_dumped) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_connect();
    expect_acknowledgement_and_answer(client);
    EXPECT_EQ(server.err().count_starting("RTMP packet:"), 0U);
    EXPECT_EQ(server.err().count("Sending:"), 0U);
}

TEST(command_line, each_switch_alone_has_only_its_own_effect) {
    {
        ServerProcess server({"--no-def-ack"});
        RtmpClient client = handshaken_client();
        client.send_connect();
        EXPECT_EQ(client.read_any_message().type, MSG_COMMAND);
        EXPECT_EQ(server.err().count("Sending:"), 0U);
    }
    ServerProcess server({"--dbg-pkt"});
    RtmpClient client = handshaken_client();
    client.send_connect();
    expect_acknowledgement_and_answer(client);
    EXPECT_EQ(server.err().count("Sending:"), 2U);
}

TEST(command_line, each_quit_signal_ends_the_server_at_once_and_silently) {
    for (const int signal_number : {SIGTERM, SIGINT, SIGQUIT}) {
        ServerProcess server;
        const TimePoint start = SteadyClock::now();
        server.send_signal(signal_number);
        const ProgramEnd end = server.wait_for_exit();
        EXPECT_EQ(end.status, 0) << signal_number;
        EXPECT_LT(elapsed_since(start), scaled(Milliseconds{500}));
        EXPECT_EQ(server.raw_text(), "");
        EXPECT_EQ(server.out().raw_text(), "");
    }
}

TEST(command_line, stopping_closes_every_connection) {
    ServerProcess server;
    RtmpClient silent;
    server.wait_for_line("RTMP begin");
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    EXPECT_LT(server.stop(), scaled(Milliseconds{1000}));
    (void)silent.expect_closed();
    (void)publisher.expect_closed();
    (void)player.expect_closed();
}

TEST(command_line, nine_signals_to_a_stuck_server_do_not_abort_it) {
    StuckServer stuck;
    for (int i = 0; i < 9; ++i) {
        stuck.server.send_signal(SIGTERM);
        stuck.server.wait_until_signals_are_taken();
    }
    stuck.server.resume_draining_stderr();
    const ProgramEnd end = stuck.server.wait_for_exit();
    EXPECT_EQ(end.status, 0);
}

TEST(command_line, the_tenth_signal_aborts_a_stuck_server) {
    StuckServer stuck;
    const int signals[] = {SIGTERM, SIGINT, SIGQUIT};
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(stuck.server.is_running()) << "after " << i << " signals";
        stuck.server.send_signal(signals[i % 3]);
        if (i < 9) {
            stuck.server.wait_until_signals_are_taken();
        }
    }
    stuck.server.resume_draining_stderr();
    const ProgramEnd end = stuck.server.wait_for_exit();
    EXPECT_EQ(end.signal, SIGABRT);
}

TEST(command_line, a_directory_at_the_socket_path_prevents_the_start) {
    const CleanSocketPath clean;
    std::filesystem::create_directories(CONTROL_SOCKET_PATH + "/occupied");
    expect_refusal({}, "Failed to create server socket\n");
    EXPECT_TRUE(std::filesystem::is_directory(CONTROL_SOCKET_PATH + "/occupied"));
}

TEST(command_line, an_empty_directory_at_the_socket_path_prevents_the_start) {
    const CleanSocketPath clean;
    std::filesystem::create_directory(CONTROL_SOCKET_PATH);
    expect_refusal({}, "Failed to create server socket\n");
    EXPECT_TRUE(std::filesystem::is_directory(CONTROL_SOCKET_PATH));
}

TEST(command_line, a_stale_socket_does_not_prevent_the_start) {
    const CleanSocketPath clean;
    leave_stale_socket();
    ServerProcess server;
    (void)connected_client();
}

TEST(command_line, a_file_at_the_socket_path_does_not_prevent_the_start) {
    const CleanSocketPath clean;
    std::ofstream(CONTROL_SOCKET_PATH) << "left over";
    ServerProcess server;
    EXPECT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH));
    (void)connected_client();
}

TEST(command_line, the_socket_exists_while_the_server_runs_and_no_longer) {
    const CleanSocketPath clean;
    ServerProcess server;
    EXPECT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH));
    server.stop();
    EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH));
}

TEST(command_line, a_port_that_another_program_holds_exclusively_prevents_the_start) {
    const CleanSocketPath clean;
    {
        const PortOwner owner;
        expect_refusal({}, "Cannot bind socket\n");
    }
    // An exit because of the listener leaves the control socket in place; the next start takes over the path.
    EXPECT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH));
    ServerProcess server;
    (void)connected_client();
}

TEST(command_line, a_second_instance_shares_the_port_and_takes_over_the_socket_path) {
    const CleanSocketPath clean;
    ServerProcess first;
    ServerOptions options;
    options.beside_another = true;
    ServerProcess second(options);
    first.stop();
    EXPECT_TRUE(std::filesystem::is_socket(CONTROL_SOCKET_PATH))
        << "the first instance removed the second one's socket";
    RtmpClient client = connected_client();
    second.wait_for_line("accepted app ombrex-live");
    second.stop();
    EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH));
}

TEST(command_line, a_missing_descriptor_for_the_listener_silently_ends_the_start) {
#ifdef V9_COUNTS_COVERAGE
    GTEST_SKIP() << "the counters complain that they cannot be written without descriptors";
#endif
    const CleanSocketPath clean;
    ServerOptions options;
    // Three standard descriptors and one for the control socket.
    options.limits = {{RLIMIT_NOFILE, 4}};
    // A leak check at exit would need more descriptors.
    options.environment = {"ASAN_OPTIONS=detect_leaks=0"};
    const ProgramRun run = run_server_to_its_end(options);
    EXPECT_EQ(run.end.status, 1);
    EXPECT_EQ(run.err, "");
}

TEST(command_line, closed_standard_descriptors_do_not_end_up_as_sockets) {
    const std::vector<std::vector<int>> rows = {{0}, {1}, {2}, {0, 1, 2}};
    for (const std::vector<int>& closed : rows) {
        ServerOptions options;
        options.closed_descriptors = closed;
        options.arguments = {"--dbg-pkt"};
        ServerProcess server(options);
        // The strict reader would trip over a log line between the chunks.
        RtmpClient player = playing_client("cam1");
        RtmpClient publisher = publishing_client("cam1");
        publisher.send_audio(1, from_hex("AF 01 55"));
        EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, from_hex("AF 01 55"));
        for (const int fd : {0, 1, 2}) {
            const std::string link = "/proc/" + std::to_string(server.pid()) + "/fd/" + std::to_string(fd);
            const std::string target = std::filesystem::read_symlink(link);
            EXPECT_EQ(target.find("socket:"), std::string::npos) << "descriptor " << fd << " is " << target;
        }
    }
}

TEST(command_line, closed_standard_descriptors_that_cannot_be_replaced_silently_end_the_start) {
    const BareDev bare;
    const std::vector<std::vector<int>> rows = {{0}, {1}, {2}, {0, 1, 2}};
    for (const std::vector<int>& closed : rows) {
        ServerOptions options;
        options.closed_descriptors = closed;
        const ProgramRun run = run_server_to_its_end(options);
        EXPECT_EQ(run.end.status, 1);
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.out, "");
        EXPECT_FALSE(std::filesystem::exists(CONTROL_SOCKET_PATH));
    }
}

TEST(command_line, a_missing_dev_null_does_not_prevent_the_start_with_open_standard_descriptors) {
    const BareDev bare;
    ServerProcess server;
    (void)connected_client();
}

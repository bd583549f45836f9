// v9_rtmp_ctl check and events against the real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/program_process.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/tool_run.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr int WARNING = 1;
constexpr int CRITICAL = 2;
constexpr int UNKNOWN = 3;

// Returns a listening socket, or -1.
int listen_at_loopback(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 1) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

std::string time_and(const std::string& event) {
    return "[0-9-]* [0-9:]* " + event;
}

}  // namespace

TEST(ctl_check, sends_a_stream_through_the_server_and_warns_of_future_problems) {
    ServerProcess server;
    const ProgramRun run = run_tool({"check", "--publish-test"});
    // A warning, because the server's standard error goes to a pipe.
    EXPECT_EQ(run.end, (ProgramEnd{WARNING, 0})) << run.out;
    EXPECT_EQ(run.err, "");
    for (const char* const line :
         {"ok: control socket: it answered in ", "ok: list: listed in ",
          "ok: slots: 0 of 128 slots are used\n", " listens on it\n", "ok: RTMP: handshake in ",
          "ok: relay: a message came through in ",
          "ok: descriptors: ", "ok: threads: ", "warning: log: standard error goes to a pipe"}) {
        EXPECT_THAT(run.out, HasSubstr(line));
    }
    EXPECT_THAT(run.out, Not(HasSubstr("critical: ")));
    server.err().wait_for_line_starting("Connection for play unsubscribed from 'check_");
    EXPECT_EQ(server.count("AMF0 error command"), 0U);
    EXPECT_EQ(server.err().count_starting("Hrmph"), 0U);
}

TEST(ctl_check, a_server_whose_socket_is_gone_is_reported_with_its_process) {
    ServerProcess server;
    std::filesystem::remove("/var/run/v9_rtmp_server.socket");
    const ProgramRun run = run_tool({"check", "--quiet"});
    EXPECT_EQ(run.end, (ProgramEnd{CRITICAL, 0}));
    EXPECT_THAT(run.out,
                HasSubstr("critical: control socket: there is no socket at /var/run/v9_rtmp_server.socket; "
                          "process " +
                          std::to_string(server.pid()) +
                          " still listens on port 1935. If that is a v9_rtmp_server, a second instance took "
                          "its control socket: stop the server that still listens, then start it again.\n"));
}

TEST(ctl_check, several_processes_that_hold_the_listening_socket_are_all_named) {
    const int listening = listen_at_loopback(1935);
    ASSERT_GE(listening, 0);
    const pid_t child = fork();
    if (child == 0) {
        for (;;) {
            pause();
        }
    }
    const ProgramRun run = run_tool({"hello"});
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(listening);
    const auto [first, second] = std::minmax({getpid(), child});
    EXPECT_THAT(run.err, HasSubstr("; processes " + std::to_string(first) + ", " + std::to_string(second) +
                                   " still listen on port 1935."));
}

TEST(ctl_check, the_advice_restores_the_control_socket_of_a_service_without_a_restart) {
    ServerProcess server;
    std::filesystem::remove("/var/run/v9_rtmp_server.socket");
    std::filesystem::create_directory("/run/v9-rtmp-server");
    for (const char* const command : {"check", "hello"}) {
        const ProgramRun run = run_tool({command});
        EXPECT_THAT(
            run.out + run.err,
            HasSubstr("'systemd-tmpfiles --create v9-rtmp-server.conf' as root to restore the socket;"));
    }
}

TEST(ctl_check, a_handshake_that_found_no_free_slot_is_repeated_once_there_is_one) {
    ServerProcess server;
    // Closes each client at once, as a full server does.
    const int listening = listen_at_loopback(1936);
    ASSERT_GE(listening, 0);
    std::atomic<unsigned> clients = 0;
    std::thread thread([&] {
        for (;;) {
            const int client = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) {
                return;
            }
            ++clients;
            close(client);
        }
    });
    const ProgramRun run = run_tool({"check", "--quiet", "--rtmp", "127.0.0.1:1936"});
    shutdown(listening, SHUT_RDWR);
    thread.join();
    close(listening);
    EXPECT_EQ(clients, 2U);
    EXPECT_THAT(run.out, HasSubstr("critical: RTMP: 127.0.0.1:1936: it closed the connection"));
    EXPECT_THAT(run.out, Not(HasSubstr("slots")));
}

TEST(ctl_check, without_a_server_is_critical) {
    const ProgramRun run = run_tool({"check", "--quiet"});
    EXPECT_EQ(run.end, (ProgramEnd{CRITICAL, 0}));
    EXPECT_THAT(
        run.out,
        AllOf(
            HasSubstr("critical: control socket: there is no socket at "),
            HasSubstr("critical: RTMP: 127.0.0.1:1935: it does not accept connections (Connection refused)"),
            Not(HasSubstr("ok: "))));
}

TEST(ctl_check, a_server_that_does_not_answer_is_critical) {
    ServerProcess server;
    server.pause();
    const ProgramRun run = run_tool({"check", "--timeout", "0.5"});
    server.resume();
    EXPECT_EQ(run.end, (ProgramEnd{CRITICAL, 0}));
    EXPECT_THAT(run.out, AllOf(HasSubstr("critical: control socket: the server did not answer in time"),
                               HasSubstr("critical: RTMP: 127.0.0.1:1935: it did not answer in time")));
}

TEST(ctl_check, a_second_process_on_the_port_is_critical) {
    ServerProcess first;
    ServerOptions options;
    options.beside_another = true;
    ServerProcess second(options);
    const ProgramRun run = run_tool({"check"});
    EXPECT_EQ(run.end, (ProgramEnd{CRITICAL, 0}));
    EXPECT_THAT(run.out, HasSubstr("critical: port: 2 processes listen on port 1935"));
}

TEST(ctl_check, an_ipv6_proxy_beside_the_server_does_not_share_its_port) {
    const ServerProcess server;
    constexpr uid_t NOBODY = 65534;
    for (const uid_t user : {NOBODY, geteuid()}) {
        const uid_t own_user = geteuid();
        ASSERT_EQ(seteuid(user), 0);
        const int proxy = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(seteuid(own_user), 0);
        if (proxy < 0) {
            GTEST_SKIP() << "the kernel has no IPv6";
        }
        const int on = 1;
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(1935);
        ASSERT_EQ(setsockopt(proxy, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on), 0);
        ASSERT_EQ(bind(proxy, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(proxy, 1), 0);
        const ProgramRun run = run_tool({"check"});
        close(proxy);
        EXPECT_THAT(run.out, Not(HasSubstr("critical: ")));
        EXPECT_THAT(run.out, user == NOBODY
                                 ? HasSubstr("ok: port: only process ")
                                 : HasSubstr("unknown: port: It is not known whether another socket"));
    }
}

TEST(ctl_check, a_usage_error_is_unknown) {
    for (const char* const word : {"--no-such-option", "--rtmp=nowhere", "word"}) {
        EXPECT_EQ(run_tool({"check", word}).end, (ProgramEnd{UNKNOWN, 0})) << word;
    }
}

TEST(ctl_events, report_each_client_and_run_a_program_for_each) {
    ServerProcess server;
    const std::string hook = "/run/hook";
    std::ofstream(hook) << "#!/bin/sh\necho \"$V9_EVENT $V9_STREAM $V9_MODE\" >> /run/hook.out\n";
    std::filesystem::permissions(hook, std::filesystem::perms::owner_all);
    RtmpClient first = publishing_client("cam1");
    ProgramProcess events({tool_path(), "events", "--interval", "0.1", "--exec", hook});
    // What exists before the first listing is not an event. The hook's first line shows that events has taken
    // its first listing.
    std::vector<RtmpClient> probes;
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] {
        probes.emplace_back();
        return holds_within(Milliseconds{300}, [] { return std::filesystem::exists("/run/hook.out"); });
    }));
    const RtmpClient second = publishing_client("cam1");
    const auto wait_for = [&](const std::string& text) {
        EXPECT_TRUE(holds_within(DEFAULT_WAIT,
                                 [&] { return events.out().raw_text().find(text) != std::string::npos; }))
            << text << "\n"
            << events.out().raw_text();
    };
    wait_for(", publish of 'cam1' from " + second.local_address() + "\n");
    const std::string address = first.local_address();
    first.close();
    wait_for(", publish of 'cam1' from " + second.local_address() +
             "; the previous publisher was 0, publish of 'cam1' from " + address + "\n");
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, [] {
        std::ostringstream text;
        text << std::ifstream("/run/hook.out").rdbuf();
        return text.str().find("gone cam1 publish\ntakeover cam1 publish\n") != std::string::npos;
    }));
    for (const std::string& line : events.out().lines_since()) {
        EXPECT_THAT(line,
                    MatchesRegex(time_and("(connect|publish|gone|takeover) .* from 127\\.0\\.0\\.1:.*")));
    }
    events.send_signal(SIGINT);
    EXPECT_EQ(events.wait_for_exit(), (ProgramEnd{0, 0}));
    EXPECT_EQ(events.err().raw_text(), "");
    std::filesystem::remove(hook);
    std::filesystem::remove("/run/hook.out");
}

TEST(ctl_events, end_after_the_running_program_although_more_events_wait) {
    ServerProcess server;
    const std::string hook = "/run/hook";
    const std::string output = hook + ".out";
    std::ofstream(hook) << "#!/bin/sh\necho >> /run/hook.out\nsleep 1\n";
    std::filesystem::permissions(hook, std::filesystem::perms::owner_all);
    const auto runs = [&] {
        return std::filesystem::exists(output) ? std::filesystem::file_size(output) : 0;
    };
    ProgramProcess events({tool_path(), "events", "--interval", "0.1", "--exec", hook});
    std::vector<RtmpClient> clients;
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] {
        clients.emplace_back();
        return holds_within(Milliseconds{300}, [&] { return runs() > 0; });
    }));
    // The first hook is still running, so the next listing contains all of these.
    for (int i = 0; i < 10; ++i) {
        clients.emplace_back();
    }
    const auto first_runs = runs();
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] { return runs() > first_runs; }));
    events.send_signal(SIGTERM);
    const auto runs_at_signal = runs();
    EXPECT_EQ(events.wait_for_exit(), (ProgramEnd{0, 0}));
    EXPECT_LE(runs(), runs_at_signal + 1);
    std::filesystem::remove(hook);
    std::filesystem::remove(output);
}

// Players whose link is cut, so the server is not notified that they are gone.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <string>

#include "tests/support/far_side.h"
#include "tests/support/live_pair.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

// 0.2 s + 0.4 s + ... + 3.2 s: far more than the keepalive of these tests takes, and far less than the
// usual 15.
constexpr const char* RETRIES = "4";

// Returns the peer's address in the server's notation. Empty if fd is not a connection.
std::string peer_of(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        address.sin_family != AF_INET) {
        return {};
    }
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

// A copy of the server's end of a client's connection.
class ServerEnd {
  public:
    ServerEnd(const ServerProcess& server, const RtmpClient& client)
        : fd(find(server, client.local_address())) {}
    ~ServerEnd() { close(fd); }
    ServerEnd(const ServerEnd&) = delete;
    ServerEnd& operator=(const ServerEnd&) = delete;

    int tcp_option(int option) const {
        int value = -1;
        socklen_t length = sizeof value;
        checked(getsockopt(fd, IPPROTO_TCP, option, &value, &length), "getsockopt");
        return value;
    }

    // Waits until no data is in transit, and shortens the keepalive time of two minutes to three seconds.
    void hurry_keepalive() const {
        const auto bytes_under_way = [this] {
            int bytes = -1;
            checked(ioctl(fd, SIOCOUTQ, &bytes), "SIOCOUTQ");
            return bytes;
        };
        EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] { return bytes_under_way() == 0; }));
        set_tcp_option(TCP_KEEPIDLE, 1);
        set_tcp_option(TCP_KEEPINTVL, 1);
        set_tcp_option(TCP_KEEPCNT, 2);
    }

  private:
    static int find(const ServerProcess& server, const std::string& peer_address) {
        const auto process = static_cast<int>(syscall(SYS_pidfd_open, server.pid(), 0));
        checked(process, "pidfd_open");
        constexpr int MOST = 200;
        for (int theirs = 0; theirs < MOST; ++theirs) {
            const auto copy = static_cast<int>(syscall(SYS_pidfd_getfd, process, theirs, 0));
            if (copy < 0 && errno != EBADF) {
                close(process);
                checked(copy, "pidfd_getfd");
            }
            if (copy >= 0 && peer_of(copy) == peer_address) {
                close(process);
                return copy;
            }
            close(copy);
        }
        close(process);
        throw TestFailure("the server has no connection from " + peer_address);
    }

    void set_tcp_option(int option, int value) const {
        checked(setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value), "setsockopt");
    }

    const int fd;
};

std::string unsubscribed(const std::string& stream_name) {
    return "Connection for play unsubscribed from '" + stream_name + "'";
}

}  // namespace

TEST(vanished_player, with_nothing_in_flight_is_dropped_after_six_unanswered_probes) {
    FarSide far;
    ServerProcess server;
    const RtmpClient player = far.player("cam1");
    {
        const ServerEnd end(server, player);
        EXPECT_EQ(end.tcp_option(TCP_KEEPIDLE), 60);
        EXPECT_EQ(end.tcp_option(TCP_KEEPINTVL), 10);
        EXPECT_EQ(end.tcp_option(TCP_KEEPCNT), 6);
        end.hurry_keepalive();
    }
    far.cut_link();
    server.wait_for_line(unsubscribed("cam1"));
    server.wait_for_line("WARNING: Thread terminated unexpectedly");
    server.wait_for_thread_count(THREADS_AT_REST);
}

// Linux sends no probes while it retransmits data, so such a player stays for a quarter of an hour.
TEST(vanished_player, with_data_in_flight_is_dropped_only_when_the_kernel_gives_up_retransmitting) {
    std::ofstream("/proc/sys/net/ipv4/tcp_retries2") << RETRIES << std::flush;
    FarSide far;
    ServerProcess server;
    const RtmpClient idle = far.player("idle");
    const RtmpClient busy = far.player("live");
    for (const RtmpClient* const player : {&idle, &busy}) {
        ServerEnd(server, *player).hurry_keepalive();
    }
    LivePair live;
    far.cut_link();
    server.wait_for_line(unsubscribed("idle"));
    EXPECT_EQ(server.count(unsubscribed("live")), 0U);
    server.wait_for_line(unsubscribed("live"));
    live.wait_for_more(3);
    live.finish();
}

#include "tools/v9_rtmp_ctl/port_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(port_check, sockets_that_listen_on_the_port_are_found) {
    constexpr const char* TABLE =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
        "   0: 00000000:078F 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000        0 4711 1 0 "
        "100 0\n"
        "   1: 0100007F:078F 0100007F:D431 01 00000000:00000000 00:00000000 00000000  1000        0 4712 1 0 "
        "20 4\n"
        "   2: 00000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 4713 1 0 "
        "100 0\n"
        "   3: 00000000000000000000000000000000:078F 00000000000000000000000000000000:0000 0A "
        "00000000:00000000 "
        "00:00000000 00000000     7        0 4714 1 0 100 0\n"
        "garbage\n\n";
    EXPECT_THAT(find_listening(TABLE, RTMP_PORT),
                ElementsAre(ListeningSocket{4711, 1000, false}, ListeningSocket{4714, 7, true}));
    EXPECT_THAT(find_listening(TABLE, 80), IsEmpty());
    EXPECT_THAT(find_listening("", RTMP_PORT), IsEmpty());
}

TEST(port_check, what_cannot_be_read_is_reported) {
    const PortCheck check = check_port(Peer{});
    EXPECT_THAT(check.gap, testing::HasSubstr("/proc does not show the process that answers"));
    EXPECT_THAT(check.warnings, IsEmpty());
    EXPECT_EQ(check.listeners, std::nullopt);
}

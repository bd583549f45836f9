#include "tools/v9_rtmp_ctl/listen_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/rtmp_probe.h"

TEST(listen_address, is_an_address_and_a_port) {
    for (const char* const text : {"127.0.0.1:9935", "0.0.0.0:0", "[::1]:9935", "[::]:65535"}) {
        const std::optional<ListenAddress> parsed = parse_listen_address(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_EQ(listen_address_text(parsed->address), text);
    }
}

TEST(listen_address, refuses_anything_else) {
    for (const char* const text :
         {"", ":9935", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "localhost:9935",
          "::1:9935", "[::1]9935", "[::1", "[127.0.0.1]:1", "1.2.3.4:80 "}) {
        EXPECT_FALSE(parse_listen_address(text)) << text;
    }
}

TEST(host_of_a_request, may_have_a_port_or_none) {
    const std::optional<HostAndPort> with_port = split_host("Relay.example:9935");
    ASSERT_TRUE(with_port);
    EXPECT_EQ(with_port->host, "relay.example");
    EXPECT_EQ(with_port->port, 9935);
    const std::optional<HostAndPort> without = split_host("[FE80::1]");
    ASSERT_TRUE(without);
    EXPECT_EQ(without->host, "fe80::1");
    EXPECT_TRUE(without->is_ipv6);
    EXPECT_FALSE(without->port);
}

TEST(rtmp_address, is_a_host_and_a_port) {
    const std::vector<std::array<std::string, 3>> rows = {{"127.0.0.1:1935", "127.0.0.1", "1935"},
                                                          {"relay.example:80", "relay.example", "80"},
                                                          {"[::1]:1935", "::1", "1935"}};
    for (const auto& [text, host, port] : rows) {
        const std::optional<RtmpAddress> address = parse_rtmp_address(text);
        ASSERT_TRUE(address) << text;
        EXPECT_EQ(address->host, host);
        EXPECT_EQ(address->port, port);
    }
    for (const char* const text : {"", ":1935", "[]:1935", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0",
                                   "127.0.0.1:65536", "127.0.0.1:x", "::1:1935", "[::1:1935"}) {
        EXPECT_FALSE(parse_rtmp_address(text)) << text;
    }
}

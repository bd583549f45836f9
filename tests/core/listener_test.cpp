#include "core/listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

TEST(listener, an_address_is_listed_with_its_port) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = inet_addr("203.0.113.9");
    peer.sin_port = htons(1234);
    EXPECT_EQ(peer_address_text(peer), "203.0.113.9:1234");
    peer.sin_port = htons(65535);
    EXPECT_EQ(peer_address_text(peer), "203.0.113.9:65535");
}

#include "tools/v9_rtmp_ctl/serve/http_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/tools/fake_server.h"

using testing::HasSubstr;

TEST(http_host, an_address_and_localhost_are_the_servers_own) {
    for (const char* const host : {"127.0.0.1", "127.0.0.1:9935", "192.0.2.7:80", "[::1]:9935", "[fe80::1]",
                                   "localhost", "localhost:9935", "LocalHost:1"}) {
        EXPECT_TRUE(is_own_host(host, {})) << host;
    }
}

TEST(http_host, other_names_are_not_the_servers_own) {
    for (const char* const host : {"", "evil.example", "evil.example:9935", "localhost.evil.example",
                                   "127.0.0.1.evil.example", "127.0.0.1:9935:1", "127.0.0.1:x", "[localhost]",
                                   "[127.0.0.1]", "127.1", "0x7f000001", "127.0.0.1 "}) {
        EXPECT_FALSE(is_own_host(host, {})) << host;
    }
}

TEST(http_host, configured_names_are_the_servers_own) {
    EXPECT_TRUE(is_own_host("Relay.Example:9935", {"relay.example"}));
    EXPECT_TRUE(is_own_host("relay.example", {"other.example", "RELAY.example"}));
    EXPECT_FALSE(is_own_host("sub.relay.example", {"relay.example"}));
}

TEST(http_origin, only_the_servers_own_page_may_drop) {
    EXPECT_TRUE(is_same_origin("http://127.0.0.1:9935", "127.0.0.1:9935", "same-origin"));
    EXPECT_TRUE(is_same_origin("https://relay.example", "relay.example", ""));
    EXPECT_FALSE(is_same_origin("http://evil.example", "127.0.0.1:9935", "cross-site"));
    EXPECT_FALSE(is_same_origin("http://127.0.0.1:80", "127.0.0.1:9935", ""));
    EXPECT_FALSE(is_same_origin("", "127.0.0.1:9935", ""));
    EXPECT_FALSE(is_same_origin("null", "127.0.0.1:9935", ""));
    EXPECT_FALSE(is_same_origin("http://127.0.0.1:9935", "127.0.0.1:9935", "same-site"));
}

TEST(http_token, must_match_completely) {
    const std::string token = "0123456789abcdef";
    EXPECT_TRUE(has_token("Bearer 0123456789abcdef", token));
    for (const char* const guess :
         {"", "Bearer ", "0123456789abcdef", "bearer 0123456789abcdef", "Bearer 0123456789abcde",
          "Bearer 0123456789abcdeg", "Bearer 0123456789abcdef0"}) {
        EXPECT_FALSE(has_token(guess, token)) << guess;
    }
    EXPECT_FALSE(has_token("Bearer ", ""));
}

namespace {

class token_file_test : public testing::Test {
  protected:
    std::optional<Failure> read(const std::string& content, mode_t mode = 0600) {
        std::ofstream(path) << content;
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return read_token(path, token);
    }

    const std::string path = make_directory() + "/token";
    std::string token;
};

}  // namespace

TEST_F(token_file_test, holds_the_token_in_its_first_line) {
    EXPECT_FALSE(read("0123456789abcdef \r\nmore\n"));
    EXPECT_EQ(token, "0123456789abcdef");
    EXPECT_FALSE(read("0123456789abcdef", 0640));
}

TEST_F(token_file_test, that_every_user_can_read_is_refused) {
    const std::optional<Failure> failure = read("0123456789abcdef\n", 0644);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->exit_code, ExitCode::USAGE);
    EXPECT_THAT(failure->message, HasSubstr("chmod o="));
}

TEST_F(token_file_test, with_too_short_a_token_is_refused) {
    for (const char* const content : {"", "\n", "0123456789abcde\n", "0123456789abcde f\n",
                                      "0123456789abcd\xff"
                                      "ef\n"}) {
        const std::optional<Failure> failure = read(content);
        ASSERT_TRUE(failure) << content;
        EXPECT_THAT(failure->message, HasSubstr("16 characters"));
    }
}

TEST(token_file_that_is_missing, is_explained) {
    std::string token;
    const std::optional<Failure> failure = read_token("/nonexistent/token", token);
    ASSERT_TRUE(failure);
    EXPECT_THAT(failure->message, HasSubstr("/dev/urandom"));
}

TEST(html, special_characters_are_escaped) {
    EXPECT_EQ(escape_html("<b a=\"1\" c='2'>&amp;"), "&lt;b a=&quot;1&quot; c=&#39;2&#39;&gt;&amp;amp;");
}

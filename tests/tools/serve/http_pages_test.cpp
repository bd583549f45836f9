#include "tools/v9_rtmp_ctl/serve/http_pages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string TOKEN = "0123456789abcdef";

class pages_test : public testing::Test {
  protected:
    static std::string request(const std::string& line,
                               const std::string& headers = "Host: 127.0.0.1:9935\r\n") {
        return line + " HTTP/1.1\r\n" + headers + "\r\n";
    }
    std::string get(const std::string& path) { return pages(TOKEN).answer(request("GET " + path)); }

    HttpPages& pages(const std::string& token) {
        made = std::make_unique<HttpPages>(
            PageRules{{"relay.example"}, token},
            PageContents{
                [] { return "v9_rtmp_up 1\n"; }, [] { return "{}"; },
                [](const std::string& nonce) { return "<!DOCTYPE html><script nonce=\"" + nonce + "\">"; },
                [this] { return sickness; },
                [this](const std::string& id, const std::string& address) -> std::optional<Failure> {
                    dropped.push_back(id + " " + address);
                    return drop_failure;
                }});
        return *made;
    }

    static std::string drop_headers(const std::string& origin, const std::string& token) {
        return "Host: 127.0.0.1:9935\r\nOrigin: " + origin + "\r\nAuthorization: Bearer " + token +
               "\r\nContent-Length: 0\r\n";
    }
    std::string drop(const std::string& origin, const std::string& token) {
        return pages(TOKEN).answer(
            request("POST /drop?id=5&address=203.0.113.7%3A50000", drop_headers(origin, token)));
    }

    std::unique_ptr<HttpPages> made;
    std::string sickness;
    std::optional<Failure> drop_failure;
    std::vector<std::string> dropped;
};

const std::string OWN_ORIGIN = "http://127.0.0.1:9935";

}  // namespace

TEST_F(pages_test, have_the_expected_type_and_content) {
    EXPECT_THAT(get("/metrics"), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("version=0.0.4"),
                                       EndsWith("\r\n\r\nv9_rtmp_up 1\n")));
    EXPECT_THAT(get("/connections.json"), AllOf(HasSubstr("application/json"), EndsWith("\r\n\r\n{}")));
    EXPECT_THAT(get("/"), AllOf(HasSubstr("text/html"), HasSubstr("<!DOCTYPE html>")));
    EXPECT_THAT(get("/healthz"), AllOf(StartsWith("HTTP/1.1 200 "), EndsWith("\r\n\r\nok\n")));
    EXPECT_THAT(get("/connectionsXjson"), StartsWith("HTTP/1.1 404 "));
    EXPECT_THAT(get("/etc/passwd"), AllOf(StartsWith("HTTP/1.1 404 "), HasSubstr("/metrics")));
    EXPECT_THAT(get("/../../etc/passwd"), StartsWith("HTTP/1.1 404 "));
}

TEST_F(pages_test, health_is_bad_while_the_server_does_not_answer) {
    sickness = "there is no socket";
    EXPECT_THAT(get("/healthz"),
                AllOf(StartsWith("HTTP/1.1 503 "), EndsWith("\r\n\r\nthere is no socket\n")));
}

TEST_F(pages_test, each_ends_its_connection_and_is_protected) {
    for (const char* const path : {"/", "/metrics", "/connections.json", "/healthz", "/nothing"}) {
        EXPECT_THAT(
            get(path),
            AllOf(HasSubstr("Connection: close\r\n"), HasSubstr("X-Content-Type-Options: nosniff\r\n"),
                  HasSubstr("Content-Security-Policy: default-src 'none'"),
                  HasSubstr("frame-ancestors 'none'"), HasSubstr("X-Frame-Options: DENY\r\n"),
                  HasSubstr("Cache-Control: no-store\r\n")));
    }
}

TEST_F(pages_test, the_status_page_runs_its_own_script_alone) {
    const std::string reply = get("/");
    const std::size_t at = reply.find("script-src 'nonce-");
    ASSERT_NE(at, std::string::npos);
    const std::string nonce = reply.substr(at + 18, 32);
    EXPECT_THAT(reply, HasSubstr("<script nonce=\"" + nonce + "\">"));
    EXPECT_THAT(reply, Not(HasSubstr("unsafe")));
    EXPECT_THAT(get("/"), Not(HasSubstr(nonce)));
}

TEST_F(pages_test, are_refused_for_any_other_host) {
    for (const char* const headers :
         {"Host: evil.example\r\n", "Host: \r\n", "", "Host: localhost.evil.example:9935\r\n"}) {
        const std::string reply = pages("").answer(request("GET /connections.json", headers));
        EXPECT_THAT(reply, AllOf(StartsWith("HTTP/1.1 421 "), HasSubstr("--host"))) << headers;
    }
    EXPECT_THAT(pages("").answer(request("GET /metrics", "Host: relay.example:80\r\n")),
                StartsWith("HTTP/1.1 200 "));
}

TEST_F(pages_test, a_drop_needs_origin_and_token) {
    EXPECT_THAT(drop("http://evil.example", TOKEN), StartsWith("HTTP/1.1 403 "));
    EXPECT_THAT(drop(OWN_ORIGIN, "wrong"), AllOf(StartsWith("HTTP/1.1 403 "), HasSubstr("token is wrong")));
    EXPECT_THAT(
        pages(TOKEN).answer(request("POST /drop?id=5", "Host: 127.0.0.1:9935\r\nContent-Length: 0\r\n")),
        StartsWith("HTTP/1.1 403 "));
    EXPECT_THAT(dropped, IsEmpty());
    EXPECT_THAT(drop(OWN_ORIGIN, TOKEN), AllOf(StartsWith("HTTP/1.1 200 "), EndsWith("dropped\n")));
    EXPECT_THAT(dropped, testing::ElementsAre("5 203.0.113.7:50000"));
}

TEST_F(pages_test, a_drop_is_a_post) {
    EXPECT_THAT(pages(TOKEN).answer(request("GET /drop?id=5", drop_headers(OWN_ORIGIN, TOKEN))),
                StartsWith("HTTP/1.1 404 "));
    EXPECT_THAT(dropped, IsEmpty());
}

TEST_F(pages_test, a_drop_is_off_without_a_token) {
    const std::string reply = pages("").answer(request("POST /drop?id=5", drop_headers(OWN_ORIGIN, "")));
    EXPECT_THAT(reply, AllOf(StartsWith("HTTP/1.1 403 "), HasSubstr("--allow-drop")));
    EXPECT_THAT(dropped, IsEmpty());
}

TEST_F(pages_test, a_drop_that_fails_says_why) {
    drop_failure = Failure{ExitCode::NEGATIVE_ANSWER, "there is no connection 5."};
    EXPECT_THAT(drop(OWN_ORIGIN, TOKEN),
                AllOf(StartsWith("HTTP/1.1 409 "), EndsWith("there is no connection 5.\n")));
}

TEST_F(pages_test, anything_but_a_request_is_refused) {
    HttpPages& router = pages("");
    for (const std::string& head :
         {std::string("\r\n\r\n"), std::string("GET\r\n\r\n"), std::string("GET / HTTP/9.9\r\n\r\n"),
          std::string("\x16\x03\x01\r\n\r\n"), "GET /" + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n",
          request("POST /drop", "Host: 127.0.0.1\r\nContent-Length: 18446744073709551615\r\n"),
          request("POST /drop", "Host: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n")}) {
        const std::string reply = router.answer(head);
        EXPECT_TRUE(reply.empty() || reply.starts_with("HTTP/1.1 4")) << reply;
    }
    EXPECT_THAT(dropped, IsEmpty());
}

TEST_F(pages_test, ranges_and_compression_are_not_served) {
    std::string ranges = "0-";
    while (ranges.size() < 7900) {
        ranges += ",0-";
    }
    for (const std::string& headers : {"Range: bytes=" + ranges, std::string("rAnGe:bytes=0-0"),
                                       std::string("Accept-Encoding: gzip, br")}) {
        const std::string reply =
            pages("").answer(request("GET /metrics", "Host: 127.0.0.1\r\n" + headers + "\r\n"));
        EXPECT_THAT(reply, AllOf(StartsWith("HTTP/1.1 200 "), EndsWith("\r\n\r\nv9_rtmp_up 1\n")));
    }
}

TEST_F(pages_test, any_bytes_are_handled) {
    HttpPages& router = pages(TOKEN);
    std::mt19937 random(1);
    const std::string good = request("POST /drop?id=5&address=1", drop_headers(OWN_ORIGIN, TOKEN));
    for (int i = 0; i < 2000; ++i) {
        std::string head = good;
        for (int change = 0; change < 3; ++change) {
            head[random() % (head.size() - 4)] = static_cast<char>(random());
        }
        const std::string reply = router.answer(head);
        EXPECT_TRUE(reply.empty() || reply.starts_with("HTTP/1.1 ")) << reply;
    }
}

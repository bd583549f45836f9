// The only file that includes the HTTP library: it parses requests, routes them and writes replies. http_loop
// handles the sockets.
#include "tools/v9_rtmp_ctl/serve/http_pages.h"

#include <httplib.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/v9_rtmp_ctl/listen_address.h"
#include "tools/v9_rtmp_ctl/serve/http_rules.h"

namespace {

constexpr const char* PLAIN_TEXT = "text/plain; charset=utf-8";
constexpr const char* POLICY = "Content-Security-Policy";
constexpr int FORBIDDEN = 403;
constexpr int NOT_FOUND = 404;
constexpr int CONFLICT = 409;
constexpr int MISDIRECTED = 421;
constexpr int UNAVAILABLE = 503;

// A stream with the request and the reply in memory.
class MemoryStream : public httplib::Stream {
  public:
    explicit MemoryStream(const std::string& request) : input(request) {}

    [[nodiscard]] bool is_readable() const override { return read_bytes < input.size(); }
    [[nodiscard]] bool is_writable() const override { return true; }
    ssize_t read(char* target, size_t size) override {
        const std::size_t count = std::min(size, input.size() - read_bytes);
        input.copy(target, count, read_bytes);
        read_bytes += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* bytes, size_t size) override {
        output.append(bytes, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    [[nodiscard]] socket_t socket() const override { return INVALID_SOCKET; }

    [[nodiscard]] std::string take_output() { return std::move(output); }

  private:
    const std::string& input;
    std::size_t read_bytes = 0;
    std::string output;
};

// Unpredictable, so that a script injected into the page does not know it.
std::string make_nonce() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("no random bytes");
    }
    std::string nonce;
    for (const unsigned char byte : bytes) {
        constexpr const char* DIGITS = "0123456789abcdef";
        nonce += {DIGITS[byte >> 4U], DIGITS[byte & 0xFU]};
    }
    return nonce;
}

// Renames Range headers. The library parses them with a regular expression that recurses for each byte, and
// sends a part for each range; a request has room for thousands.
std::string without_ranges(const std::string& head) {
    constexpr std::string_view NAME = "range";
    std::string request = head;
    for (std::size_t at = request.find('\n'); at != std::string::npos; at = request.find('\n', at + 1)) {
        if (lower_case(std::string_view(request).substr(at + 1, NAME.size())) == NAME) {
            request[at + 1] = 'x';
        }
    }
    return request;
}

void refuse(httplib::Response& response, int status, const std::string& text) {
    response.status = status;
    response.set_content(text + "\n", PLAIN_TEXT);
}

}  // namespace

class HttpPages::Router : public httplib::Server {
  public:
    Router(PageRules page_rules, PageContents page_contents)
        : rules(std::move(page_rules)), contents(std::move(page_contents)) {
        set_payload_max_length(0);
        set_default_headers({{"X-Content-Type-Options", "nosniff"},
                             {"X-Frame-Options", "DENY"},
                             {"Referrer-Policy", "no-referrer"},
                             {"Cross-Origin-Resource-Policy", "same-origin"},
                             {"Cache-Control", "no-store"}});
        set_post_routing_handler([](const auto& /*request*/, auto& response) {
            if (!response.has_header(POLICY)) {
                response.set_header(POLICY, "default-src 'none'; frame-ancestors 'none'");
            }
        });
        set_pre_routing_handler([this](const auto& request, auto& response) {
            if (is_own_host(request.get_header_value("Host"), rules.host_names)) {
                return HandlerResponse::Unhandled;
            }
            refuse(response, MISDIRECTED,
                   "This host name is not known here. Use the address, or start 'v9_rtmp_ctl serve' with "
                   "--host.");
            return HandlerResponse::Handled;
        });
        add_pages();
        set_error_handler([](const auto& /*request*/, auto& response) {
            if (response.status == NOT_FOUND && response.body.empty()) {
                refuse(response, NOT_FOUND, "The paths are /, /metrics, /connections.json and /healthz.");
            }
        });
    }

    std::string answer(const std::string& head) {
        const std::string request = without_ranges(head);
        MemoryStream stream(request);
        bool closed = false;
        // The result is false if there is no reply. Replies are small, so they are not compressed.
        static_cast<void>(process_request(
            stream, true, closed, [](httplib::Request& parsed) { parsed.headers.erase("Accept-Encoding"); }));
        return stream.take_output();
    }

  private:
    void add_pages() {
        Get("/", [this](const auto& /*request*/, auto& response) {
            const std::string nonce = make_nonce();
            response.set_header(
                POLICY, "default-src 'none'; connect-src 'self'; img-src data:; script-src 'nonce-" + nonce +
                            "'; style-src 'nonce-" + nonce +
                            "'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
            response.set_content(contents.status_page(nonce), "text/html; charset=utf-8");
        });
        Get("/connections\\.json", [this](const auto& /*request*/, auto& response) {
            response.set_content(contents.connections_json(), "application/json");
        });
        Get("/metrics", [this](const auto& /*request*/, auto& response) {
            response.set_content(contents.metrics(), "text/plain; version=0.0.4; charset=utf-8");
        });
        Get("/healthz", [this](const auto& /*request*/, auto& response) {
            const std::string sickness = contents.sickness();
            response.status = sickness.empty() ? 200 : UNAVAILABLE;
            response.set_content((sickness.empty() ? "ok" : sickness) + "\n", PLAIN_TEXT);
        });
        Post("/drop", [this](const auto& request, auto& response) { drop(request, response); });
    }

    void drop(const httplib::Request& request, httplib::Response& response) {
        if (rules.token.empty()) {
            refuse(response, FORBIDDEN, "Dropping is off. Start 'v9_rtmp_ctl serve' with --allow-drop.");
            return;
        }
        if (!is_same_origin(request.get_header_value("Origin"), request.get_header_value("Host"),
                            request.get_header_value("Sec-Fetch-Site"))) {
            refuse(response, FORBIDDEN, "A drop must come from the status page itself.");
            return;
        }
        if (!has_token(request.get_header_value("Authorization"), rules.token)) {
            refuse(response, FORBIDDEN, "The token is wrong.");
            return;
        }
        const std::optional<Failure> failure =
            contents.drop(request.get_param_value("id"), request.get_param_value("address"));
        if (failure) {
            refuse(response, CONFLICT, failure->message);
        } else {
            response.set_content("dropped\n", PLAIN_TEXT);
        }
    }

    const PageRules rules;
    const PageContents contents;
};

HttpPages::HttpPages(PageRules page_rules, PageContents page_contents)
    : router(std::make_unique<Router>(std::move(page_rules), std::move(page_contents))) {}

HttpPages::~HttpPages() = default;

std::string HttpPages::answer(const std::string& head) {
    return router->answer(head);
}

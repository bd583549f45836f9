#include "tools/v9_rtmp_ctl/serve/http_rules.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <fstream>

#include "tools/v9_rtmp_ctl/listen_address.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::size_t MIN_TOKEN_BYTES = 16;

}  // namespace

bool is_own_host(std::string_view host, const std::vector<std::string>& names) {
    const std::optional<HostAndPort> split = split_host(host);
    if (!split) {
        return false;
    }
    if (is_address(*split)) {
        return true;
    }
    return !split->is_ipv6 && (split->host == "localhost" ||
                               std::any_of(names.begin(), names.end(), [&split](const std::string& name) {
                                   return lower_case(name) == split->host;
                               }));
}

bool is_same_origin(std::string_view origin, std::string_view host, std::string_view fetch_site) {
    if (!fetch_site.empty() && fetch_site != "same-origin") {
        return false;
    }
    const std::string lower = lower_case(origin);
    return lower == "http://" + lower_case(host) || lower == "https://" + lower_case(host);
}

bool has_token(std::string_view authorization, std::string_view token) {
    constexpr std::string_view SCHEME = "Bearer ";
    if (token.empty() || !authorization.starts_with(SCHEME)) {
        return false;
    }
    const std::string_view guess = authorization.substr(SCHEME.size());
    if (guess.size() != token.size()) {
        return false;
    }
    unsigned difference = 0;
    for (std::size_t i = 0; i < token.size(); ++i) {
        difference |= static_cast<unsigned char>(guess[i]) ^ static_cast<unsigned char>(token[i]);
    }
    return difference == 0;
}

std::optional<Failure> read_token(const std::string& path, std::string& token) {
    const std::string name = escape_untrusted(path);
    struct stat status {};
    std::ifstream file(path);
    if (!file || stat(path.c_str(), &status) != 0) {
        return Failure{ExitCode::USAGE,
                       "the token file " + name +
                           " cannot be read. Create it with 'head -c 24 /dev/urandom | base64 > " + name +
                           "', and make it readable only by the user that this program runs as."};
    }
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        return Failure{ExitCode::USAGE, "the token file " + name + " is open to every user. Run 'chmod o= " +
                                            name + "', and write a new token into it."};
    }
    std::getline(file, token);
    while (!token.empty() && std::isspace(static_cast<unsigned char>(token.back())) != 0) {
        token.pop_back();
    }
    const bool is_plain = std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c <= '~'; });
    if (token.size() < MIN_TOKEN_BYTES || !is_plain) {
        return Failure{ExitCode::USAGE,
                       "the first line of the token file " + name +
                           " is not a token. Write at least 16 characters without blanks into "
                           "it, for example from 'head -c 24 /dev/urandom | base64'."};
    }
    return std::nullopt;
}

std::string escape_html(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

#include "tools/v9_rtmp_ctl/listen_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>

#include "tools/v9_rtmp_ctl/parse_number.h"

namespace {

// Stores the address of one family in the generic storage.
template <typename Address>
ListenAddress stored(const Address& address) {
    ListenAddress listen;
    std::memcpy(&listen.address, &address, sizeof address);
    listen.length = sizeof address;
    return listen;
}

}  // namespace

std::string lower_case(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

std::optional<HostAndPort> split_host(std::string_view text) {
    HostAndPort split;
    std::string_view rest;
    if (text.starts_with('[')) {
        const std::size_t end = text.find(']');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        split.host = lower_case(text.substr(1, end - 1));
        split.is_ipv6 = true;
        rest = text.substr(end + 1);
    } else {
        const std::size_t colon = std::min(text.find(':'), text.size());
        split.host = lower_case(text.substr(0, colon));
        rest = text.substr(colon);
    }
    if (rest.empty()) {
        return split;
    }
    std::uint16_t port = 0;
    if (rest.front() != ':' || !parse_number(rest.substr(1), port)) {
        return std::nullopt;
    }
    split.port = port;
    return split;
}

bool is_address(const HostAndPort& split) {
    in6_addr address{};
    return inet_pton(split.is_ipv6 ? AF_INET6 : AF_INET, split.host.c_str(), &address) == 1;
}

std::optional<ListenAddress> parse_listen_address(std::string_view text) {
    const std::optional<HostAndPort> split = split_host(text);
    if (!split || !split->port) {
        return std::nullopt;
    }
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(*split->port);
    if (!split->is_ipv6 && inet_pton(AF_INET, split->host.c_str(), &ipv4.sin_addr) == 1) {
        return stored(ipv4);
    }
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(*split->port);
    if (split->is_ipv6 && inet_pton(AF_INET6, split->host.c_str(), &ipv6.sin6_addr) == 1) {
        return stored(ipv6);
    }
    return std::nullopt;
}

std::string listen_address_text(const sockaddr_storage& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address.ss_family == AF_INET6) {
        sockaddr_in6 ipv6{};
        std::memcpy(&ipv6, &address, sizeof ipv6);
        inet_ntop(AF_INET6, &ipv6.sin6_addr, text.data(), text.size());
        return "[" + std::string(text.data()) + "]:" + std::to_string(ntohs(ipv6.sin6_port));
    }
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, &address, sizeof ipv4);
    inet_ntop(AF_INET, &ipv4.sin_addr, text.data(), text.size());
    return std::string(text.data()) + ":" + std::to_string(ntohs(ipv4.sin_port));
}

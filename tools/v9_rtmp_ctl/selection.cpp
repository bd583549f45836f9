#include "tools/v9_rtmp_ctl/selection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

#include "tools/v9_rtmp_ctl/parse_number.h"

namespace {

constexpr unsigned ADDRESS_BITS = 32;

bool parse_address(std::string_view text, std::uint32_t& address) {
    in_addr parsed{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &parsed) != 1) {
        return false;
    }
    address = ntohl(parsed.s_addr);
    return true;
}

std::uint32_t mask_of(unsigned bits) {
    return bits == 0 ? 0 : ~std::uint32_t{0} << (ADDRESS_BITS - bits);
}

template <typename Range, typename Predicate>
bool none_or_any(const Range& range, const Predicate& predicate) {
    return range.empty() || std::any_of(range.begin(), range.end(), predicate);
}

}  // namespace

bool is_pattern(std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos;
}

// Takes time proportional to the product of both lengths: only the last star is retried.
bool matches_name(std::string_view pattern, std::string_view name) {
    if (!is_pattern(pattern)) {
        return pattern == name;
    }
    std::size_t p = 0;
    std::size_t n = 0;
    std::size_t star = std::string_view::npos;
    std::size_t star_end = 0;  // end of what the last star matches
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            star_end = n;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++p;
            ++n;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            n = ++star_end;
        } else {
            return false;
        }
    }
    return !name.empty() && pattern.find_first_not_of('*', p) == std::string_view::npos;
}

std::optional<AddressRange> parse_address_range(std::string_view text) {
    AddressRange range;
    range.mask = mask_of(ADDRESS_BITS);
    const std::size_t mark = text.find_first_of(":/");
    if (!parse_address(text.substr(0, mark), range.network)) {
        return std::nullopt;
    }
    if (mark == std::string_view::npos) {
        return range;
    }
    const std::string_view rest = text.substr(mark + 1);
    std::uint16_t port = 0;
    unsigned bits = 0;
    if (text[mark] == ':' && parse_number(rest, port)) {
        range.port = std::to_string(port);
        return range;
    }
    if (text[mark] == '/' && parse_number(rest, bits) && bits <= ADDRESS_BITS) {
        range.mask = mask_of(bits);
        range.network &= range.mask;
        return range;
    }
    return std::nullopt;
}

bool matches_address(const AddressRange& range, std::string_view address) {
    const std::size_t colon = address.rfind(':');
    std::uint32_t parsed = 0;
    if (colon == std::string_view::npos || !parse_address(address.substr(0, colon), parsed)) {
        return false;
    }
    return (parsed & range.mask) == range.network &&
           (range.port.empty() || range.port == address.substr(colon + 1));
}

bool matches(const Selection& selection, const Connection& connection) {
    return (!selection.mode || (*selection.mode == "none" ? "" : *selection.mode) == connection.mode) &&
           none_or_any(selection.streams,
                       [&connection](const std::string& s) { return matches_name(s, connection.stream); }) &&
           none_or_any(selection.addresses, [&connection](const AddressRange& range) {
               return matches_address(range, connection.address);
           });
}

void pick(const Selection& selection, std::vector<Connection>& connections) {
    std::erase_if(connections, [&selection](const Connection& c) { return !matches(selection, c); });
}

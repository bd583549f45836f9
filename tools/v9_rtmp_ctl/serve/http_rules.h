// Access rules of serve: the host names it accepts, and the conditions for a drop. Pure, except that
// read_token reads a file.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// Whether a Host header names this server: an address, localhost, or one of the names, each with or without a
// port. This rejects a foreign page whose own name resolves to this server (DNS rebinding).
[[nodiscard]] bool is_own_host(std::string_view host, const std::vector<std::string>& names);

// Whether a request comes from this server's own page: its Origin is http or https with the same host, and
// its Sec-Fetch-Site, if the browser sends one, is same-origin.
[[nodiscard]] bool is_same_origin(std::string_view origin, std::string_view host,
                                  std::string_view fetch_site);

// Whether an Authorization header holds the token. Takes the same time for all guesses of the same length.
[[nodiscard]] bool has_token(std::string_view authorization, std::string_view token);

// Reads the token, the first line of the file. It must have at least 16 characters, and only the file's owner
// and group may read or write the file.
[[nodiscard]] std::optional<Failure> read_token(const std::string& path, std::string& token);

// Replaces the special characters of HTML with character references, for use in elements and
// quoted attributes.
[[nodiscard]] std::string escape_html(std::string_view text);

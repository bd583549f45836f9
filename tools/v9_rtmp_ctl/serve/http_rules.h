// Who may ask serve for what: the hosts it answers as, and what a drop needs. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// Whether a Host header names this server: an address, localhost, or one of the names, each with any port or
// none. A page from elsewhere that has its own name lead here (DNS rebinding) is told apart by this.
[[nodiscard]] bool is_own_host(std::string_view host, const std::vector<std::string>& names);

// Whether a request comes from the page that this server sent: its Origin is http or https with the same
// host, and the browser, where it says so, has the site as its own.
[[nodiscard]] bool is_same_origin(std::string_view origin, std::string_view host,
                                  std::string_view fetch_site);

// Whether an Authorization header holds the token. Takes equally long for every guess of the same length.
[[nodiscard]] bool has_token(std::string_view authorization, std::string_view token);

// Reads the token: the first line of the file. It has to have 16 characters, and only owner and group may
// read the file.
[[nodiscard]] std::optional<Failure> read_token(const std::string& path, std::string& token);

// The text with what HTML gives a meaning written as references, for elements and quoted attributes.
[[nodiscard]] std::string escape_html(std::string_view text);

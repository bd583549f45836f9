// The status page: status_page.html, compiled in.
#pragma once

#include <string>
#include <string_view>

extern const std::string_view STATUS_PAGE;

// The page with the nonce of its script and style, and with the table for browsers without script, which
// is HTML.
[[nodiscard]] std::string status_page(const std::string& nonce, const std::string& table);

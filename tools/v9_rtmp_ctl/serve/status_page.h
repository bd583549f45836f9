// The status page: status_page.html, compiled in.
#pragma once

#include <string>
#include <string_view>

extern const std::string_view STATUS_PAGE;

// Returns the page with the nonce of its script and style. table is HTML for browsers without script.
[[nodiscard]] std::string status_page(const std::string& nonce, const std::string& table);

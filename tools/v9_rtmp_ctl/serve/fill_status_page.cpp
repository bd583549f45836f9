#include <cstddef>
#include <string>
#include <string_view>

#include "tools/v9_rtmp_ctl/serve/status_page.h"

namespace {

// A single pass, so that inserted text is not searched again.
std::string fill(std::string_view page, std::string_view nonce, std::string_view table) {
    constexpr std::string_view NONCE = "{{nonce}}";
    constexpr std::string_view TABLE = "{{table}}";
    std::string filled;
    while (true) {
        const std::size_t at = page.find("{{");
        filled += page.substr(0, at);
        if (at == std::string_view::npos) {
            return filled;
        }
        page.remove_prefix(at);
        const bool is_nonce = page.starts_with(NONCE);
        const bool is_table = page.starts_with(TABLE);
        filled += is_nonce ? nonce : is_table ? table : page.substr(0, 2);
        page.remove_prefix(is_nonce ? NONCE.size() : is_table ? TABLE.size() : 2);
    }
}

}  // namespace

std::string status_page(const std::string& nonce, const std::string& table) {
    return fill(STATUS_PAGE, nonce, table);
}

// Decodes one value and dumps what was decoded, even if the value was refused. Instead of being printed, the
// text is checked: whole lines, each starting with the indentation unless a string brought its own newline,
// and never more than the limit.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "amf/amf_dump.h"
#include "amf/amf_read.h"
#include "base/check.h"
#include "base/diag.h"

namespace {

constexpr std::string_view CUT = "WARNING: AMF dump cut\n";
std::size_t printed_bytes = 0;
bool was_cut = false;

}  // namespace

// Refusals are common here, so they are not printed.
void diag(const char*, ...) {}
bool refuse(const char*, ...) {
    return false;
}

void diag_block(std::string_view text) {
    CHECK(!was_cut);
    CHECK(text.ends_with('\n'));
    CHECK(text.find('\0') == std::string_view::npos);
    if (printed_bytes == 0) {
        CHECK(text.starts_with("\tAMF var ") || text == CUT);
    }
    was_cut = text.ends_with("\n" + std::string(CUT)) || text == CUT;
    printed_bytes += text.size();
    CHECK(printed_bytes <= AMF_DUMP_MAX_BYTES + CUT.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const unsigned char* s = data;
    AMF_Value v;
    (void)AMF_ReadValueChecked(v, s, data + size);
    printed_bytes = 0;
    was_cut = false;
    AMF_DumpValue(v, "\t");
    CHECK(printed_bytes > 0);
    return 0;
}

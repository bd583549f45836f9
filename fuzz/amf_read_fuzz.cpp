// Decodes the input value by value, as the handlers do, until one is refused or the data ends.
#include <cstddef>
#include <cstdint>

#include "amf/amf_read.h"
#include "base/check.h"
#include "base/diag.h"

// Refusals are common here, so they are not printed.
void diag(const char*, ...) {}
bool refuse(const char*, ...) {
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const unsigned char* s = data;
    const unsigned char* sf = data + size;
    while (s < sf) {
        const unsigned char* before = s;
        AMF_Value v;
        const bool done = AMF_ReadValue(v, s, sf);
        CHECK(v.type == AMF_Type{*before});
        CHECK(done ? s > before && s <= sf : s == before);
        if (!done) {
            break;
        }
    }
    return 0;
}

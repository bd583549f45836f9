// Decodes one value. What can be encoded again must decode to a value that encodes to the same bytes, and so
// must a copy of it.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "amf/amf_read.h"
#include "amf/amf_write.h"
#include "base/check.h"
#include "base/diag.h"

// Refusals are common here, so they are not printed.
void diag(const char*, ...) {}
bool refuse(const char*, ...) {
    return false;
}

namespace {

// Empty if the value cannot be encoded in this much room.
std::vector<unsigned char> encode(const AMF_Value& v, std::size_t room) {
    std::vector<unsigned char> bytes(room);
    unsigned char* d = bytes.data();
    const bool done = AMF_WriteValue(d, bytes.data() + room, v);
    CHECK(done ? d > bytes.data() && d <= bytes.data() + room : d == bytes.data());
    bytes.resize(static_cast<std::size_t>(d - bytes.data()));
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const unsigned char* s = data;
    AMF_Value decoded;
    if (!AMF_ReadValueChecked(decoded, s, data + size)) {
        return 0;
    }
    // In the worst case, every byte was an object without an end marker.
    const std::vector<unsigned char> bytes = encode(decoded, 4 * size);
    if (bytes.empty()) {
        return 0;
    }
    const AMF_Value copy(decoded);
    CHECK(encode(copy, bytes.size()) == bytes);
    CHECK(encode(copy, bytes.size() - 1).empty());

    AMF_Value again;
    s = bytes.data();
    CHECK(AMF_ReadValue(again, s, bytes.data() + bytes.size()));
    CHECK(s == bytes.data() + bytes.size());
    CHECK(encode(again, bytes.size()) == bytes);
    return 0;
}

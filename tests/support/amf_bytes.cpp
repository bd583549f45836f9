#include "tests/support/amf_bytes.h"

#include <bit>

#include "tests/support/test_failure.h"

Bytes amf_number(double value) {
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(value);
    return bytes_of({AMF_NUMBER}) + be32(static_cast<std::uint32_t>(bits >> 32)) +
           be32(static_cast<std::uint32_t>(bits));
}

Bytes amf_boolean(int byte) {
    return bytes_of({AMF_BOOLEAN, byte});
}

Bytes amf_string(std::string_view text) {
    return bytes_of({AMF_STRING}) + amf_key(text);
}

Bytes amf_long_string(std::string_view text) {
    return bytes_of({AMF_LONG_STRING}) + be32(static_cast<std::uint32_t>(text.size())) + Bytes(text);
}

Bytes amf_xml_document(std::string_view text) {
    return bytes_of({AMF_XML_DOCUMENT}) + be32(static_cast<std::uint32_t>(text.size())) + Bytes(text);
}

Bytes amf_null() {
    return bytes_of({AMF_NULL});
}

Bytes amf_undefined() {
    return bytes_of({AMF_UNDEFINED});
}

Bytes amf_object(const AmfMembers& members) {
    return bytes_of({AMF_OBJECT}) + amf_members(members) + amf_end();
}

Bytes amf_ecma_array(std::uint32_t count, const AmfMembers& members) {
    return bytes_of({AMF_ECMA_ARRAY}) + be32(count) + amf_members(members) + amf_end();
}

Bytes amf_key(std::string_view key) {
    if (key.size() > 0xFFFF) {
        throw TestFailure("a key or string of more than 65535 bytes");
    }
    return be16(static_cast<std::uint32_t>(key.size())) + Bytes(key);
}

Bytes amf_members(const AmfMembers& members) {
    Bytes result;
    for (const auto& [key, value] : members) {
        result += amf_key(key) + value;
    }
    return result;
}

Bytes amf_end() {
    return bytes_of({0, 0, AMF_OBJECT_END});
}

double amf_decode_number(std::string_view value) {
    if (value.empty() || value[0] != AMF_NUMBER) {
        throw TestFailure("not an AMF number: " + to_hex(value));
    }
    return std::bit_cast<double>(std::uint64_t{get_be32(value, 1)} << 32 | get_be32(value, 5));
}

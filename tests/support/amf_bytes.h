// AMF0 values as bytes: builders for what clients send, valid or not, and for the replies that are expected.
// A payload is a concatenation of values: amf_string("play") + amf_number(4) + amf_null() + ...
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/wire_bytes.h"

// Keys and encoded values, in the order of sending.
using AmfMembers = std::vector<std::pair<std::string, Bytes>>;

Bytes amf_number(double value);
Bytes amf_boolean(int byte);
Bytes amf_string(std::string_view text);
Bytes amf_long_string(std::string_view text);
Bytes amf_xml_document(std::string_view text);
Bytes amf_null();
Bytes amf_undefined();
Bytes amf_object(const AmfMembers& members);
// count is written as given, correct or not.
Bytes amf_ecma_array(std::uint32_t count, const AmfMembers& members);

// Parts, for values that are truncated or assembled by hand.
Bytes amf_key(std::string_view key);           // 16-bit length and bytes, no marker
Bytes amf_members(const AmfMembers& members);  // keys and values, no end marker
Bytes amf_end();                               // 00 00 09

enum AmfMarker : std::uint8_t {
    AMF_NUMBER = 0x00,
    AMF_BOOLEAN = 0x01,
    AMF_STRING = 0x02,
    AMF_OBJECT = 0x03,
    AMF_NULL = 0x05,
    AMF_UNDEFINED = 0x06,
    AMF_ECMA_ARRAY = 0x08,
    AMF_OBJECT_END = 0x09,
    AMF_LONG_STRING = 0x0C,
    AMF_XML_DOCUMENT = 0x0F,
};

// Decodes the number that the bytes begin with. Throws TestFailure unless it is one and complete.
double amf_decode_number(std::string_view value);

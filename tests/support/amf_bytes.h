// AMF0 values as bytes: builders for what clients send, sane or not, and a strict decoder for what the server
// answers. A payload is the concatenation of values: amf_string("play") + amf_number(4) + amf_null() + ...
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/wire_bytes.h"

// Key and encoded value, in the order in which they go out.
using AmfMembers = std::vector<std::pair<std::string, Bytes>>;

Bytes amf_number(double value);
Bytes amf_boolean(int byte);
Bytes amf_string(std::string_view text);
Bytes amf_long_string(std::string_view text);
Bytes amf_xml_document(std::string_view text);
Bytes amf_null();
Bytes amf_undefined();
Bytes amf_object(const AmfMembers& members);
// count is written as given, right or wrong.
Bytes amf_ecma_array(std::uint32_t count, const AmfMembers& members);

// Parts, for values that are cut short or put together by hand.
Bytes amf_key(std::string_view key);           // 16-bit length and bytes, no marker
Bytes amf_members(const AmfMembers& members);  // keys and values, no end
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

struct AmfNode {
    // Defined where the type is complete, since a node holds nodes.
    AmfNode();
    ~AmfNode();
    AmfNode(const AmfNode& other);
    AmfNode(AmfNode&& other) noexcept;
    AmfNode& operator=(const AmfNode& other);
    AmfNode& operator=(AmfNode&& other) noexcept;

    std::uint8_t marker = AMF_UNDEFINED;
    double number = 0;
    int boolean = 0;
    std::string string;
    std::uint32_t ecma_count = 0;
    // In the order in which they came.
    std::vector<std::pair<std::string, AmfNode>> members;

    bool has(std::string_view key) const;
    // Throws TestFailure when there is no such member.
    const AmfNode& at(std::string_view key) const;
};

// All values of a payload. Throws TestFailure on anything that is not complete and well-formed: an object
// must end with its end marker, an array's count must be right.
std::vector<AmfNode> amf_decode_all(std::string_view payload);

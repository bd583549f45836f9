#include "amf/amf_write.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "base/check.h"

namespace {

constexpr std::ptrdiff_t NUMBER_BYTES = 8;
constexpr std::ptrdiff_t COUNT_BYTES = 4;
constexpr std::ptrdiff_t END_BYTES = 3;

// An object whose marker and count have been written, and its remaining members.
struct OpenObject {
    AMF_MemberMap::const_iterator next;
    AMF_MemberMap::const_iterator end;
    std::size_t unwritten;  // members not written yet
};

bool room_for_string(const unsigned char* d, const unsigned char* df, std::ptrdiff_t length_bytes,
                     std::string_view s) {
    return df - d >= length_bytes && static_cast<std::size_t>(df - d - length_bytes) >= s.size();
}

void write_bytes(unsigned char*& d, const unsigned char* df, std::string_view s) {
    if (!s.empty()) {
        std::memcpy(d, s.data(), s.size());
    }
    d += s.size();
    CHECK(d <= df);
}

// Opens an Object or an ECMAArray; writes the count of the latter.
bool open_object(std::vector<OpenObject>& open, unsigned char*& d, const unsigned char* df,
                 const AMF_Value& v) {
    if (v.type == AMF_Type::ECMAArray) {
        if (df - d < COUNT_BYTES) {
            return false;
        }
        write_be32(d, static_cast<std::uint32_t>(v.members.size()));
        d += COUNT_BYTES;
    }
    open.push_back({v.members.begin(), v.members.end(), v.members.size()});
    return true;
}

bool close_object(std::vector<OpenObject>& open, unsigned char*& d, const unsigned char* df) {
    if (open.back().unwritten != 0 || df - d < END_BYTES) {
        return false;
    }
    write_be24(d, static_cast<std::uint32_t>(AMF_Type::ObjectEnd));
    d += END_BYTES;
    open.pop_back();
    return true;
}

// Writes the marker and what follows it, except members: a value with members is only opened.
bool write_start(std::vector<OpenObject>& open, unsigned char*& d, unsigned char* df, const AMF_Value& v) {
    if (d >= df) {
        return false;
    }
    *d++ = static_cast<unsigned char>(v.type);
    switch (v.type) {
        case AMF_Type::Number:
            return AMF_WriteNumber(d, df, v);
        case AMF_Type::Boolean:
            return AMF_WriteBoolean(d, df, v);
        case AMF_Type::String:
            return AMF_WriteStringU16(d, df, v.string);
        case AMF_Type::LongString:
        case AMF_Type::XMLDocument:
            return AMF_WriteStringU32(d, df, v.string);
        case AMF_Type::Object:
        case AMF_Type::ECMAArray:
            return open_object(open, d, df, v);
        case AMF_Type::Null:
        case AMF_Type::Undefined:
            return true;
        case AMF_Type::MovieClip:
        case AMF_Type::Reference:
        case AMF_Type::ObjectEnd:
        case AMF_Type::StrictArray:
        case AMF_Type::Date:
        case AMF_Type::Unsupported:
        case AMF_Type::Recordset:
        case AMF_Type::TypedObject:
            return false;
    }
    return false;  // A failed decode may leave any type.
}

// Writes members until no object is open.
bool write_members(std::vector<OpenObject>& open, unsigned char*& d, unsigned char* df) {
    while (!open.empty()) {
        OpenObject& object = open.back();
        if (object.next == object.end) {
            if (!close_object(open, d, df)) {
                return false;
            }
            continue;
        }
        const auto& [key, value] = *object.next++;
        --object.unwritten;
        if (!AMF_WriteStringU16(d, df, key) || !write_start(open, d, df, value)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool AMF_WriteStringU16(unsigned char*& d, unsigned char* df, std::string_view s) {
    if (s.size() >= AMF_LONG_STRING_BYTES || !room_for_string(d, df, 2, s)) {
        return false;
    }
    write_be16(d, static_cast<std::uint32_t>(s.size()));
    d += 2;
    write_bytes(d, df, s);
    return true;
}

bool AMF_WriteStringU32(unsigned char*& d, unsigned char* df, std::string_view s) {
    if (!room_for_string(d, df, 4, s)) {
        return false;
    }
    write_be32(d, static_cast<std::uint32_t>(s.size()));
    d += 4;
    write_bytes(d, df, s);
    return true;
}

bool AMF_WriteNumber(unsigned char*& d, unsigned char* df, const AMF_Value& v) {
    if (df - d < NUMBER_BYTES) {
        return false;
    }
    const auto bits = std::bit_cast<std::uint64_t>(v.number);
    write_be32(d, static_cast<std::uint32_t>(bits >> 32));
    write_be32(d + 4, static_cast<std::uint32_t>(bits));
    d += NUMBER_BYTES;
    return true;
}

bool AMF_WriteBoolean(unsigned char*& d, unsigned char* df, const AMF_Value& v) {
    if (df - d < 1) {
        return false;
    }
    *d++ = v.boolean;
    return true;
}

bool AMF_WriteValue(unsigned char*& d, unsigned char* df, const AMF_Value& v) {
    std::vector<OpenObject> open;
    unsigned char* t = d;
    if (!write_start(open, t, df, v) || !write_members(open, t, df)) {
        return false;
    }
    d = t;
    return true;
}

bool AMF_WriteObjectBody(unsigned char*& d, unsigned char* df, const AMF_Value& v) {
    std::vector<OpenObject> open;
    unsigned char* t = d;
    if (!open_object(open, t, df, v) || !write_members(open, t, df)) {
        return false;
    }
    d = t;
    return true;
}

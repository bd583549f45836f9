#include "amf/amf_read.h"

#include <bit>
#include <cstddef>
#include <deque>
#include <utility>

#include "base/bytes.h"
#include "base/check.h"
#include "base/diag.h"

namespace {

constexpr std::ptrdiff_t NUMBER_BYTES = 8;
constexpr std::ptrdiff_t COUNT_BYTES = 4;

// An object whose members are being read. It owns its value, so the tree never holds an unfinished object.
struct OpenObject {
    std::string key;  // its key in the enclosing object
    AMF_Value value;
    bool counted = false;     // an ECMA array, which announces `count` members
    std::uint32_t count = 0;  // meaningful when counted
    std::uint32_t read = 0;   // members read so far, including those that replaced another
};

bool holds_members(AMF_Type type) {
    return type == AMF_Type::Object || type == AMF_Type::ECMAArray;
}

bool read_count(OpenObject& object, const unsigned char*& s, const unsigned char* sf) {
    if (sf - s < COUNT_BYTES) {
        return false;
    }
    object.counted = true;
    object.count = read_be32(s);
    s += COUNT_BYTES;
    return true;
}

bool store_member(OpenObject& object, std::string&& key, AMF_Value&& value) {
    if (object.counted && object.read == object.count) {
        return refuse("AMF0 error ECMA array too long vs count\n");
    }
    ++object.read;
    object.value.members.store(std::move(key), std::move(value));
    return true;
}

// Returns false after printing one line if fewer members were read than announced.
bool check_count(const OpenObject& object) {
    if (object.counted && object.count > object.read) {
        return refuse("AMF0 error ECMA array too short vs count\n");
    }
    return true;
}

// Reads a value without members; s points just past the marker. Returns false for unsupported types.
bool read_payload(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    switch (v.type) {
        case AMF_Type::Number:
            return AMF_ReadNumber(v, s, sf);
        case AMF_Type::Boolean:
            return AMF_ReadBoolean(v, s, sf);
        case AMF_Type::String:
            return AMF_ReadStringU16(v.string, s, sf);
        case AMF_Type::LongString:
        case AMF_Type::XMLDocument:
            return AMF_ReadStringU32(v.string, s, sf);
        case AMF_Type::Null:
        case AMF_Type::Undefined:
        case AMF_Type::ObjectEnd:
            return true;
        case AMF_Type::Object:
        case AMF_Type::ECMAArray:
        case AMF_Type::MovieClip:
        case AMF_Type::Reference:
        case AMF_Type::StrictArray:
        case AMF_Type::Date:
        case AMF_Type::Unsupported:
        case AMF_Type::Recordset:
        case AMF_Type::TypedObject:
            return false;
    }
    return false;  // A peer may send any byte as the marker.
}

// Ends the innermost object: checks its count and moves it into the enclosing one, if there is one.
bool end_object(std::deque<OpenObject>& open) {
    if (!check_count(open.back())) {
        return false;
    }
    if (open.size() == 1) {
        return true;
    }
    OpenObject member = std::move(open.back());
    open.pop_back();
    return store_member(open.back(), std::move(member.key), std::move(member.value));
}

// Reads one member of the innermost object. A member that is itself an object is only opened. The end marker
// sets ended. Requires s < sf.
bool read_member(std::deque<OpenObject>& open, bool& ended, const unsigned char*& s,
                 const unsigned char* sf) {
    std::string key;
    if (!AMF_ReadStringU16(key, s, sf) || s >= sf) {
        return false;
    }
    AMF_Value value;
    value.type = AMF_Type{*s++};
    if (key.empty() && value.type == AMF_Type::ObjectEnd) {
        ended = true;
        return true;
    }
    if (!holds_members(value.type)) {
        return read_payload(value, s, sf) && store_member(open.back(), std::move(key), std::move(value));
    }
    const bool counted = value.type == AMF_Type::ECMAArray;
    open.push_back({std::move(key), std::move(value)});
    return !counted || read_count(open.back(), s, sf);
}

// Reads members until the outermost object is complete.
bool read_members(std::deque<OpenObject>& open, const unsigned char*& s, const unsigned char* sf) {
    for (;;) {
        // The end of the data closes every object that is still open.
        bool ended = s >= sf;
        if (!ended && !read_member(open, ended, s, sf)) {
            return false;
        }
        if (ended) {
            const bool outermost = open.size() == 1;
            if (!end_object(open)) {
                return false;
            }
            if (outermost) {
                return true;
            }
        }
    }
}

bool read_body(AMF_Value& v, bool counted, const unsigned char*& s, const unsigned char* sf) {
    const unsigned char* t = s;
    std::deque<OpenObject> open(1);
    if (counted && !read_count(open.front(), t, sf)) {
        return false;
    }
    open.front().value = std::move(v);
    const bool done = read_members(open, t, sf);
    v = std::move(open.front().value);
    if (done) {
        s = t;
    }
    return done;
}

bool read_string(std::string& out, std::ptrdiff_t length_bytes, std::uint32_t n, const unsigned char*& s,
                 const unsigned char* sf) {
    if (static_cast<std::size_t>(sf - s - length_bytes) < n) {
        return false;
    }
    s += length_bytes;
    out.assign(reinterpret_cast<const char*>(s), n);
    s += n;
    CHECK(s <= sf);
    return true;
}

}  // namespace

bool AMF_ReadStringU16(std::string& out, const unsigned char*& s, const unsigned char* sf) {
    return sf - s >= 2 && read_string(out, 2, read_be16(s), s, sf);
}

bool AMF_ReadStringU32(std::string& out, const unsigned char*& s, const unsigned char* sf) {
    if (sf - s < 4) {
        return false;
    }
    const std::uint32_t n = read_be32(s);
    return n <= AMF_READ_STRING_U32_MAX_BYTES && read_string(out, 4, n, s, sf);
}

bool AMF_ReadNumber(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    if (sf - s < NUMBER_BYTES) {
        return false;
    }
    v.number = std::bit_cast<double>(std::uint64_t{read_be32(s)} << 32 | read_be32(s + 4));
    s += NUMBER_BYTES;
    return true;
}

bool AMF_ReadBoolean(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    if (sf - s < 1) {
        return false;
    }
    v.boolean = *s++;
    return true;
}

bool AMF_ReadValue(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    v.reset();
    v.type = AMF_Type{*s};
    const unsigned char* t = s + 1;
    const bool done =
        holds_members(v.type) ? read_body(v, v.type == AMF_Type::ECMAArray, t, sf) : read_payload(v, t, sf);
    if (done) {
        s = t;
    }
    return done;
}

bool AMF_ReadValueChecked(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    return s < sf && AMF_ReadValue(v, s, sf);
}

bool AMF_ReadObjectBody(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    return read_body(v, false, s, sf);
}

bool AMF_ReadECMAArrayBody(AMF_Value& v, const unsigned char*& s, const unsigned char* sf) {
    return read_body(v, true, s, sf);
}

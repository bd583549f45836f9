// From AMF0 bytes to values, one value per call. Main thread only.
//
// Every function takes the cursor s by reference and sf, one past the last byte; it requires s <= sf and
// never reads at or beyond sf. True: decoded, s stands behind it. False: the bytes are malformed or end too
// early, and s is unchanged. All numbers are big-endian. Memory exhaustion throws std::bad_alloc and leaves
// nothing behind but a value to discard.
//
// The depth of a value is bounded by its bytes alone: open objects wait on the heap, and each member moves
// into its object when it is complete.
#pragma once

#include <cstdint>
#include <string>

#include "amf/amf_value.h"

// The longest LongString or XMLDocument that is read.
constexpr std::uint32_t AMF_READ_STRING_U32_MAX_BYTES = 1048576;

// A 16-bit or 32-bit length and that many bytes, any bytes. On false out is unchanged.
[[nodiscard]] bool AMF_ReadStringU16(std::string& out, const unsigned char*& s, const unsigned char* sf);
[[nodiscard]] bool AMF_ReadStringU32(std::string& out, const unsigned char*& s, const unsigned char* sf);

// The payload alone, without a marker. NaNs, infinities and booleans above 1 pass as they are. On false v is
// unchanged; type is never touched.
[[nodiscard]] bool AMF_ReadNumber(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);
[[nodiscard]] bool AMF_ReadBoolean(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// One complete value with its marker. Requires s < sf. On false v is to be discarded: its type is the marker,
// and it holds the members that were complete before the failure, never a part of one.
[[nodiscard]] bool AMF_ReadValue(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// The same, and false with v unchanged when s >= sf.
[[nodiscard]] bool AMF_ReadValueChecked(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// The members of an Object, s just behind the marker, up to an empty key with an ObjectEnd or to the end of
// the data, whichever comes first. The last of several members with one key stays. On false v holds the
// members that were complete.
[[nodiscard]] bool AMF_ReadObjectBody(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// A 32-bit count and the members, as above. Exactly as many members as announced must arrive, of which those
// with the same key count each; otherwise prints one line and returns false.
[[nodiscard]] bool AMF_ReadECMAArrayBody(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

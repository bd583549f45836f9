// Decodes AMF0, one value per call. Main thread only.
//
// Every function takes the cursor s by reference and sf, one past the last byte. It requires s <= sf and
// never reads at or beyond sf. On success it returns true, and s points just past the value. If the bytes are
// malformed or end too early, it returns false, and s is unchanged. All numbers are big-endian. Running out
// of memory throws std::bad_alloc; the value must then be discarded.
//
// The depth of a value is limited only by its length: open objects are kept on the heap, and each member is
// moved into its object once it is complete.
#pragma once

#include <cstdint>
#include <string>

#include "amf/amf_value.h"

// The longest LongString or XMLDocument that is accepted.
constexpr std::uint32_t AMF_READ_STRING_U32_MAX_BYTES = 1048576;

// Reads a 16-bit or 32-bit length and that many bytes, which may be arbitrary. On failure out is unchanged.
[[nodiscard]] bool AMF_ReadStringU16(std::string& out, const unsigned char*& s, const unsigned char* sf);
[[nodiscard]] bool AMF_ReadStringU32(std::string& out, const unsigned char*& s, const unsigned char* sf);

// Reads the payload only, without a marker. NaNs, infinities and booleans above 1 are accepted unchanged. On
// failure v is unchanged; its type is never modified.
[[nodiscard]] bool AMF_ReadNumber(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);
[[nodiscard]] bool AMF_ReadBoolean(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// Reads one complete value with its marker. Requires s < sf. On failure the caller discards v: its type is
// the marker, and it holds the members that were complete before the failure, never a partial one.
[[nodiscard]] bool AMF_ReadValue(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// Like AMF_ReadValue, but returns false and leaves v unchanged if s >= sf.
[[nodiscard]] bool AMF_ReadValueChecked(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// Reads the members of an Object; s points just past the marker. The object ends at an empty key followed by
// ObjectEnd or at the end of the data, whichever comes first. If a key repeats, the last member is kept. On
// failure v holds the members that were complete.
[[nodiscard]] bool AMF_ReadObjectBody(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

// Reads a 32-bit count and the members, as above. The number of members must equal the count, where members
// with a repeated key count separately; otherwise prints one line and returns false.
[[nodiscard]] bool AMF_ReadECMAArrayBody(AMF_Value& v, const unsigned char*& s, const unsigned char* sf);

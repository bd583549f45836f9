// Encodes AMF0, one value per call, into a buffer of fixed size. Main thread only.
//
// Every function takes the cursor d by reference and df, one past the last usable byte. It requires d <= df
// and never writes at or beyond df. On success it returns true, and d points just past the value. If the
// value does not fit or cannot be encoded, it returns false; d is unchanged, but the bytes from d on may be
// overwritten. All numbers are big-endian. Nothing is printed. The depth of a value is limited only by the
// size of the buffer.
#pragma once

#include <string_view>

#include "amf/amf_value.h"

// Writes a 16-bit length and the bytes. Returns false if s has 65536 bytes or more. On failure the
// buffer is unchanged.
[[nodiscard]] bool AMF_WriteStringU16(unsigned char*& d, unsigned char* df, std::string_view s);

// Writes a 32-bit length and the bytes. Unlike the decoder, accepts every length that fits.
[[nodiscard]] bool AMF_WriteStringU32(unsigned char*& d, unsigned char* df, std::string_view s);

// Writes only the payload of a number or boolean, without a marker; the bits are not changed.
[[nodiscard]] bool AMF_WriteNumber(unsigned char*& d, unsigned char* df, const AMF_Value& v);
[[nodiscard]] bool AMF_WriteBoolean(unsigned char*& d, unsigned char* df, const AMF_Value& v);

// Writes one complete value with its marker. Also returns false for every type that the decoder refuses and
// for ObjectEnd.
[[nodiscard]] bool AMF_WriteValue(unsigned char*& d, unsigned char* df, const AMF_Value& v);

// Writes everything that follows the marker of an Object or ECMAArray: the number of members (ECMAArray
// only), the members in key order, and the end marker.
[[nodiscard]] bool AMF_WriteObjectBody(unsigned char*& d, unsigned char* df, const AMF_Value& v);

// From values to AMF0 bytes, one value per call, into a buffer of fixed size. Main thread only.
//
// Every function takes the cursor d by reference and df, one past the last usable byte; it requires d <= df
// and never writes at or beyond df. True: written, d stands behind it. False: it does not fit or cannot be
// encoded, and d is unchanged, but the bytes from d on may be spoilt. All numbers are big-endian. Nothing is
// printed, and the depth of a value is bounded by the room alone.
#pragma once

#include <string_view>

#include "amf/amf_value.h"

// A 16-bit length and the bytes; false from 65536 bytes on. False leaves the buffer as it was.
[[nodiscard]] bool AMF_WriteStringU16(unsigned char*& d, unsigned char* df, std::string_view s);

// A 32-bit length and the bytes. Unlike the decoder this takes every length that fits the room.
[[nodiscard]] bool AMF_WriteStringU32(unsigned char*& d, unsigned char* df, std::string_view s);

// The payload of number or boolean alone, without a marker; the bits as they are.
[[nodiscard]] bool AMF_WriteNumber(unsigned char*& d, unsigned char* df, const AMF_Value& v);
[[nodiscard]] bool AMF_WriteBoolean(unsigned char*& d, unsigned char* df, const AMF_Value& v);

// One complete value with its marker. False also for every type that the decoder refuses, and for ObjectEnd.
[[nodiscard]] bool AMF_WriteValue(unsigned char*& d, unsigned char* df, const AMF_Value& v);

// Everything of an Object or ECMAArray behind the marker: of an ECMAArray the number of members, then the
// members in key order and the end marker.
[[nodiscard]] bool AMF_WriteObjectBody(unsigned char*& d, unsigned char* df, const AMF_Value& v);

// Prints a value tree to standard error for people to read. Main thread only, never a
// connection's own threads.
//
// A dump is at most AMF_DUMP_MAX_BYTES long: every level is indented further, so a message of one megabyte
// could otherwise print as a terabyte. The first line that does not fit is replaced by "WARNING: AMF dump
// cut", and the dump stops there. Text is written in large blocks of whole lines. Keys and strings are
// printed up to their first zero byte.
#pragma once

#include <cstddef>
#include <string>

#include "amf/amf_value.h"

// Limit for one call, not counting the line that reports the cut.
constexpr std::size_t AMF_DUMP_MAX_BYTES = 1024 * 1024;

// The indent of every AMF dump that the server prints.
inline constexpr const char* DUMP_INDENT = "\t";

// Prints the type, the payload and all members of v. Every line begins with indent. For an object:
//     AMF var Object
//       Object: {
//         'app':
//           AMF var String
//             Value: 'live'
//       }
void AMF_DumpValue(const AMF_Value& v, const std::string& indent);

// Prints only the members of v, as they appear within the braces: each preceded by indent and two spaces.
void AMF_DumpMembers(const AMF_Value& v, const std::string& indent);

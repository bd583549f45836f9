// Prints a value tree to standard error, for people. Main thread only; never on a connection's own threads.
//
// A line counts by its bytes. Lines are written in large blocks, each ending with a line, and nothing is
// printed beyond AMF_DUMP_MAX_BYTES: a peer can send a megabyte that would print as a terabyte, because every
// level indents further. The first line that does not fit is replaced by "WARNING: AMF dump cut", and the
// work stops there as well. Keys and strings print up to their first zero byte.
#pragma once

#include <cstddef>
#include <string>

#include "amf/amf_value.h"

// Of one call, without the line that says so.
constexpr std::size_t AMF_DUMP_MAX_BYTES = 1024 * 1024;

// The type, the payload and all members of v; indent starts every line. For an object:
//     AMF var Object
//       Object: {
//         'app':
//           AMF var String
//             Value: 'live'
//       }
void AMF_DumpValue(const AMF_Value& v, const std::string& indent);

// The members of v alone, as within the braces: indented by two more than indent.
void AMF_DumpMembers(const AMF_Value& v, const std::string& indent);

// The rule for stream names that clients may choose.
#pragma once

#include <string>

// Whether every byte is an ASCII letter, an ASCII digit or '_'. intended: the empty name is valid.
[[nodiscard]] bool is_valid_stream_name(const std::string& name);

// Which stream names clients may choose.
#pragma once

#include <string>

// True when every byte is a letter or digit of ASCII or '_'. intended: the empty name is valid.
[[nodiscard]] bool is_valid_stream_name(const std::string& name);

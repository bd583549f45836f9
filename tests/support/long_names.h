// Publishers whose stream names are as long as a message allows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/rtmp_client.h"

RtmpClient publisher_with_long_name(const std::string& name, const ClientOptions& options = {});
// Connects publishers concurrently. Their stream names are a number followed by this many bytes.
std::vector<RtmpClient> publishers_with_long_names(std::size_t count, std::size_t name_bytes);
std::string long_stream_name(std::size_t idx, std::size_t name_bytes);

// Client messages, made by the tests' own encoder, which shares no header with the server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Returns one video message in chunks of this size.
std::string video_on_the_wire(std::size_t payload_bytes, std::uint32_t chunk_bytes);

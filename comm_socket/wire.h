// Frames as they travel: encoding and decoding on a cursor and an end, without I/O. Pure; any thread.
//
//      0       1       2       3       4               8
//     +-------+-------+-------+-------+---------------+------------------------------------+
//     |  'C'  |  'S'  | ver 4 |   0   | body length   | body                               |
//     +-------+-------+-------+-------+---------------+------------------------------------+
//     body = flags(4) request id(8) status(8) command message
//            argument count(4) argument... pair count(4) (name value)...
//
// Numbers are big-endian. A string is its length (4) and its bytes; an absent argument is the length ABSENT
// alone. docs/wire/control-socket.md has the limits and a worked example.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace comm_socket {

constexpr std::size_t FRAME_HEADER_BYTES = 8;
constexpr unsigned char WIRE_VERSION = 4;
constexpr std::uint32_t ABSENT = 0xFFFFFFFF;

// What a receiver accepts, by direction.
struct FrameLimits {
    std::size_t body_bytes;
    std::size_t arguments;
    std::size_t pairs;
};
extern const FrameLimits REQUEST_LIMITS;  // to the server
extern const FrameLimits REPLY_LIMITS;    // to the client

// Everything that a frame says behind its header.
struct FrameHead {
    std::uint32_t flags = 0;
    std::uint64_t request_id = 0;
    std::uint64_t status = 0;
};
struct FrameText {
    std::string command;
    std::string message;
    std::vector<std::optional<std::string>> arguments;
    std::vector<std::pair<std::string, std::string>> pairs;
};

enum class FrameState { INCOMPLETE, COMPLETE, BROKEN };

// Looks at the header of the frame at s. COMPLETE: the header is good and *body_bytes is set; whether the
// body has arrived is for the caller to test. INCOMPLETE: what there is, is the beginning of a good header.
// BROKEN is found as early as possible: at the first byte that is wrong, and at the length as soon as it is
// whole.
[[nodiscard]] FrameState decode_header(const unsigned char* s, const unsigned char* end,
                                       const FrameLimits& limits, std::size_t* body_bytes);

// Reads the flags and the request id of the frame at s, whose body need not have arrived. False while they have not
// arrived or if the header is broken; then head is unchanged.
[[nodiscard]] bool peek_head(const unsigned char* s, const unsigned char* end, const FrameLimits& limits,
                             FrameHead* head);

// Decodes a body that reaches exactly from s to end. False if it is broken; then head and text are unchanged.
// Throws std::bad_alloc; the memory asked for is in proportion to the bytes that are there.
[[nodiscard]] bool decode_body(const unsigned char* s, const unsigned char* end, const FrameLimits& limits,
                               FrameHead* head, FrameText* text);

// The length of the body that encode_frame would write.
[[nodiscard]] std::uint64_t encoded_body_bytes(const FrameText& text);
// By how much the body grows with a further argument (absent: nullopt) or pair.
[[nodiscard]] std::uint64_t encoded_argument_bytes(const std::optional<std::string_view>& argument);
[[nodiscard]] std::uint64_t encoded_pair_bytes(std::string_view name, std::string_view value);

// True if a receiver with these limits takes the frame.
[[nodiscard]] bool within_limits(const FrameHead& head, const FrameText& text, const FrameLimits& limits);

// Writes the whole frame at d. Requires within_limits. False if the room up to end is too small; then d is
// where it was and the bytes behind it are undefined.
[[nodiscard]] bool encode_frame(unsigned char*& d, const unsigned char* end, const FrameHead& head,
                                const FrameText& text);

// The whole frame in a buffer of its exact size. Requires within_limits. Throws std::bad_alloc.
[[nodiscard]] std::string encode_frame(const FrameHead& head, const FrameText& text);

}  // namespace comm_socket

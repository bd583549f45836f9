// Encodes and decodes frames, using a cursor and an end pointer. No I/O. Pure; any thread.
//
//      0       1       2       3       4               8
//     +-------+-------+-------+-------+---------------+------------------------------------+
//     |  'C'  |  'S'  | ver 4 |   0   | body length   | body                               |
//     +-------+-------+-------+-------+---------------+------------------------------------+
//     body = flags(4) request id(8) status(8) command message
//            argument count(4) argument... pair count(4) (name value)...
//
// Numbers are big-endian. A string is its length (4) and its bytes; an absent argument is only the length
// ABSENT. docs/wire/control-socket.md has the limits and a worked example.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace comm_socket {

constexpr std::size_t FRAME_HEADER_BYTES = 8;
constexpr unsigned char WIRE_VERSION = 4;
constexpr std::uint32_t ABSENT = 0xFFFFFFFF;

// The limits of a receiver.
struct FrameLimits {
    std::size_t body_bytes;
    std::size_t arguments;
    std::size_t pairs;
};
extern const FrameLimits REQUEST_LIMITS;  // to the server
extern const FrameLimits REPLY_LIMITS;    // to the client

// The fixed fields at the beginning of a frame's body.
struct FrameHead {
    std::uint32_t flags = 0;
    std::uint64_t request_id = 0;
    std::uint64_t status = 0;
};
// Bytes of a pair's value that the frame shares with their owner instead of copying them.
struct SharedPart {
    std::size_t pair_idx;
    std::size_t offset;  // in pairs[pair_idx].second, which holds the bytes before and after
    std::string_view bytes;
    std::shared_ptr<void> owner;  // keeps the bytes alive
};
// The rest of the body.
struct FrameText {
    std::string command;
    std::string message;
    std::vector<std::optional<std::string>> arguments;
    std::vector<std::pair<std::string, std::string>> pairs;
    // In the order of the pairs, at most one for each. Empty in a decoded frame.
    std::vector<SharedPart> shared_parts;
};

enum class FrameState { INCOMPLETE, COMPLETE, BROKEN };

// Decodes the header of the frame at s. COMPLETE means that the header is valid and *body_bytes is set; the
// caller checks whether the body has arrived. INCOMPLETE means that the bytes are the beginning of a valid
// header. BROKEN is returned as early as possible: at the first wrong byte, and for a wrong length as soon as
// it is complete.
[[nodiscard]] FrameState decode_header(const unsigned char* s, const unsigned char* end,
                                       const FrameLimits& limits, std::size_t* body_bytes);

// Reads the flags and the request id of the frame at s, whose body may be incomplete. Returns false and
// leaves head unchanged if they have not arrived or the header is malformed.
[[nodiscard]] bool peek_head(const unsigned char* s, const unsigned char* end, const FrameLimits& limits,
                             FrameHead* head);

// Decodes a body that extends exactly from s to end. Returns false and leaves head and text unchanged if it
// is malformed. Throws std::bad_alloc; the memory used is proportional to the bytes present.
[[nodiscard]] bool decode_body(const unsigned char* s, const unsigned char* end, const FrameLimits& limits,
                               FrameHead* head, FrameText* text);

// Returns the length of the body that encode_frame would write.
[[nodiscard]] std::uint64_t encoded_body_bytes(const FrameText& text);
// Returns how much a further argument (nullopt if absent) or pair adds to the body.
[[nodiscard]] std::uint64_t encoded_argument_bytes(const std::optional<std::string_view>& argument);
[[nodiscard]] std::uint64_t encoded_pair_bytes(std::string_view name, std::string_view value);

// Whether a receiver with these limits accepts the frame.
[[nodiscard]] bool within_limits(const FrameHead& head, const FrameText& text, const FrameLimits& limits);

// Writes the whole frame at d. Requires within_limits. If there is not enough room before end, returns false
// and leaves d unchanged; the bytes after d are then unspecified.
[[nodiscard]] bool encode_frame(unsigned char*& d, const unsigned char* end, const FrameHead& head,
                                const FrameText& text);

// An outgoing frame in pieces. Long strings and long shared parts are not copied: the pieces point to them.
class OutgoingFrame {
  public:
    // Requires within_limits. The text must not change afterwards. Throws std::bad_alloc.
    OutgoingFrame(const FrameHead& head, std::shared_ptr<const FrameText> unchanging_text);
    // Holds an encoded frame.
    explicit OutgoingFrame(std::string frame);

    [[nodiscard]] std::size_t size() const { return all_bytes; }
    [[nodiscard]] std::size_t piece_count() const { return pieces.size(); }
    // Returns the piece with this index. Pieces are in the order of sending. The view is valid until the
    // frame is moved.
    [[nodiscard]] std::string_view piece(std::size_t idx) const;

  private:
    struct Piece {
        const char* long_bytes;  // null if the piece is in short_bytes
        std::size_t start;       // in short_bytes
        std::size_t size;
    };
    void end_short_piece(std::size_t end);

    std::shared_ptr<const FrameText> text;
    std::string short_bytes;
    std::vector<Piece> pieces;
    std::size_t short_bytes_in_pieces = 0;
    std::size_t all_bytes = 0;
};

// Returns the whole frame in a buffer of its exact size. Requires within_limits. Throws std::bad_alloc.
[[nodiscard]] std::string encode_frame(const FrameHead& head, const FrameText& text);

}  // namespace comm_socket

#include "comm_socket/wire.h"

#include <comm_socket_v4.h>

#include <array>
#include <cstring>

namespace comm_socket {

const FrameLimits REQUEST_LIMITS = {COMM_SOCKET_V4_MAX_REQUEST_BYTES, COMM_SOCKET_V4_MAX_ARGUMENTS,
                                    COMM_SOCKET_V4_MAX_REQUEST_PAIRS};
const FrameLimits REPLY_LIMITS = {COMM_SOCKET_V4_MAX_REPLY_BYTES, COMM_SOCKET_V4_MAX_ARGUMENTS,
                                  COMM_SOCKET_V4_MAX_REPLY_PAIRS};

namespace {

constexpr unsigned char PREAMBLE[4] = {'C', 'S', WIRE_VERSION, 0};
constexpr std::uint32_t KNOWN_FLAGS = COMM_SOCKET_V4_REQUEST | COMM_SOCKET_V4_ASYNC;
constexpr std::size_t LENGTH_BYTES = 4;
constexpr std::size_t SMALLEST_PAIR_BYTES = 2 * LENGTH_BYTES;
constexpr std::size_t LONG_STRING_BYTES = 16384;  // shorter ones are cheaper to copy than to send separately
constexpr std::uint64_t FIXED_BODY_BYTES = 4 + 8 + 8 + 4 * LENGTH_BYTES;  // all but the strings

std::size_t room(const unsigned char* s, const unsigned char* end) {
    return static_cast<std::size_t>(end - s);
}

bool take_u32(const unsigned char*& s, const unsigned char* end, std::uint32_t* value) {
    if (room(s, end) < 4) {
        return false;
    }
    *value = std::uint32_t{s[0]} << 24 | std::uint32_t{s[1]} << 16 | std::uint32_t{s[2]} << 8 | s[3];
    s += 4;
    return true;
}

bool take_u64(const unsigned char*& s, const unsigned char* end, std::uint64_t* value) {
    std::uint32_t high = 0;
    std::uint32_t low = 0;
    if (room(s, end) < 8 || !take_u32(s, end, &high) || !take_u32(s, end, &low)) {
        return false;
    }
    *value = std::uint64_t{high} << 32 | low;
    return true;
}

bool take_bytes(const unsigned char*& s, const unsigned char* end, std::uint32_t length, std::string* value) {
    if (room(s, end) < length) {
        return false;
    }
    value->assign(reinterpret_cast<const char*>(s), length);
    s += length;
    return true;
}

bool take_string(const unsigned char*& s, const unsigned char* end, std::string* value) {
    std::uint32_t length = 0;
    return take_u32(s, end, &length) && take_bytes(s, end, length, value);
}

bool take_arguments(const unsigned char*& s, const unsigned char* end, std::size_t limit, FrameText* text) {
    std::uint32_t count = 0;
    if (!take_u32(s, end, &count) || count > limit) {
        return false;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t length = 0;
        if (!take_u32(s, end, &length)) {
            return false;
        }
        auto& argument = text->arguments.emplace_back();
        if (length != ABSENT && !take_bytes(s, end, length, &argument.emplace())) {
            return false;
        }
    }
    return true;
}

bool take_pairs(const unsigned char*& s, const unsigned char* end, std::size_t limit, FrameText* text) {
    std::uint32_t count = 0;
    if (!take_u32(s, end, &count) || count > limit || room(s, end) / SMALLEST_PAIR_BYTES < count) {
        return false;
    }
    text->pairs.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        auto& [name, value] = text->pairs.emplace_back();
        if (!take_string(s, end, &name) || !take_string(s, end, &value)) {
            return false;
        }
    }
    return true;
}

void put_u32(unsigned char*& d, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        *d++ = static_cast<unsigned char>(value >> shift);
    }
}

void put_u64(unsigned char*& d, std::uint64_t value) {
    put_u32(d, static_cast<std::uint32_t>(value >> 32));
    put_u32(d, static_cast<std::uint32_t>(value));
}

void put_bytes(unsigned char*& d, std::string_view bytes) {
    if (!bytes.empty()) {  // memcpy must not get the null pointer of an empty part
        std::memcpy(d, bytes.data(), bytes.size());
        d += bytes.size();
    }
}

// The value of a pair: the bytes before its shared part, the shared part, and the bytes after it.
using ValueParts = std::array<std::string_view, 3>;
using SharedParts = std::vector<SharedPart>;

// Returns the value of the pair at idx. *shared points to the next unused shared part; it is advanced if that
// part belongs to this pair.
ValueParts next_value(const FrameText& text, std::size_t idx, SharedParts::const_iterator* shared) {
    const std::string_view own = text.pairs[idx].second;
    if (*shared == text.shared_parts.end() || (*shared)->pair_idx != idx) {
        return {own, {}, {}};
    }
    const SharedPart& part = *(*shared)++;
    return {own.substr(0, part.offset), part.bytes, own.substr(part.offset)};
}

// Writes a whole frame. put_part(d, bytes) writes a string or a part of one, without a length.
template <typename PutPart>
void put_frame(unsigned char*& d, std::uint64_t body_bytes, const FrameHead& head, const FrameText& text,
               PutPart put_part) {
    const auto put_text = [&d, &put_part](const std::string& string) {
        put_u32(d, static_cast<std::uint32_t>(string.size()));
        put_part(d, string);
    };
    for (const unsigned char byte : PREAMBLE) {
        *d++ = byte;
    }
    put_u32(d, static_cast<std::uint32_t>(body_bytes));
    put_u32(d, head.flags);
    put_u64(d, head.request_id);
    put_u64(d, head.status);
    put_text(text.command);
    put_text(text.message);
    put_u32(d, static_cast<std::uint32_t>(text.arguments.size()));
    for (const auto& argument : text.arguments) {
        if (argument) {
            put_text(*argument);
        } else {
            put_u32(d, ABSENT);
        }
    }
    put_u32(d, static_cast<std::uint32_t>(text.pairs.size()));
    auto shared = text.shared_parts.begin();
    for (std::size_t i = 0; i < text.pairs.size(); ++i) {
        put_text(text.pairs[i].first);
        const ValueParts value = next_value(text, i, &shared);
        put_u32(d, static_cast<std::uint32_t>(value[0].size() + value[1].size() + value[2].size()));
        for (const std::string_view part : value) {
            put_part(d, part);
        }
    }
}

bool is_long(std::string_view string) {
    return string.size() >= LONG_STRING_BYTES;
}

// Returns the bytes of the strings that an outgoing frame does not copy.
std::uint64_t long_string_bytes(const FrameText& text) {
    std::uint64_t bytes = 0;
    const auto add = [&bytes](std::string_view string) { bytes += is_long(string) ? string.size() : 0; };
    add(text.command);
    add(text.message);
    for (const auto& argument : text.arguments) {
        if (argument) {
            add(*argument);
        }
    }
    auto shared = text.shared_parts.begin();
    for (std::size_t i = 0; i < text.pairs.size(); ++i) {
        add(text.pairs[i].first);
        for (const std::string_view part : next_value(text, i, &shared)) {
            add(part);
        }
    }
    return bytes;
}

}  // namespace

FrameState decode_header(const unsigned char* s, const unsigned char* end, const FrameLimits& limits,
                         std::size_t* body_bytes) {
    for (unsigned char expected : PREAMBLE) {
        if (s == end) {
            return FrameState::INCOMPLETE;
        }
        if (*s++ != expected) {
            return FrameState::BROKEN;
        }
    }
    std::uint32_t length = 0;
    if (!take_u32(s, end, &length)) {
        return FrameState::INCOMPLETE;
    }
    if (length < FIXED_BODY_BYTES || length > limits.body_bytes) {
        return FrameState::BROKEN;
    }
    *body_bytes = length;
    return FrameState::COMPLETE;
}

bool peek_head(const unsigned char* s, const unsigned char* end, const FrameLimits& limits, FrameHead* head) {
    std::size_t body_bytes = 0;
    if (decode_header(s, end, limits, &body_bytes) != FrameState::COMPLETE) {
        return false;
    }
    s += FRAME_HEADER_BYTES;
    FrameHead found;
    if (!take_u32(s, end, &found.flags) || !take_u64(s, end, &found.request_id)) {
        return false;
    }
    *head = found;
    return true;
}

bool decode_body(const unsigned char* s, const unsigned char* end, const FrameLimits& limits, FrameHead* head,
                 FrameText* text) {
    FrameHead new_head;
    FrameText new_text;
    if (room(s, end) > limits.body_bytes) {
        return false;
    }
    if (!take_u32(s, end, &new_head.flags) || (new_head.flags & ~KNOWN_FLAGS) != 0) {
        return false;
    }
    if (!take_u64(s, end, &new_head.request_id) || !take_u64(s, end, &new_head.status)) {
        return false;
    }
    if (!take_string(s, end, &new_text.command) || !take_string(s, end, &new_text.message)) {
        return false;
    }
    if (!take_arguments(s, end, limits.arguments, &new_text) ||
        !take_pairs(s, end, limits.pairs, &new_text)) {
        return false;
    }
    if (s != end) {
        return false;
    }
    *head = new_head;
    *text = std::move(new_text);
    return true;
}

std::uint64_t encoded_argument_bytes(const std::optional<std::string_view>& argument) {
    return LENGTH_BYTES + (argument ? argument->size() : 0);
}

std::uint64_t encoded_pair_bytes(std::string_view name, std::string_view value) {
    return SMALLEST_PAIR_BYTES + std::uint64_t{name.size()} + value.size();
}

std::uint64_t encoded_body_bytes(const FrameText& text) {
    std::uint64_t bytes = FIXED_BODY_BYTES + text.command.size() + text.message.size();
    for (const auto& argument : text.arguments) {
        bytes += encoded_argument_bytes(argument);
    }
    for (const auto& [name, value] : text.pairs) {
        bytes += encoded_pair_bytes(name, value);
    }
    for (const SharedPart& shared : text.shared_parts) {
        bytes += shared.bytes.size();
    }
    return bytes;
}

bool within_limits(const FrameHead& head, const FrameText& text, const FrameLimits& limits) {
    return (head.flags & ~KNOWN_FLAGS) == 0 && text.arguments.size() <= limits.arguments &&
           text.pairs.size() <= limits.pairs && encoded_body_bytes(text) <= limits.body_bytes;
}

bool encode_frame(unsigned char*& d, const unsigned char* end, const FrameHead& head, const FrameText& text) {
    const std::uint64_t body_bytes = encoded_body_bytes(text);
    if (room(d, end) < FRAME_HEADER_BYTES || room(d, end) - FRAME_HEADER_BYTES < body_bytes) {
        return false;
    }
    put_frame(d, body_bytes, head, text, put_bytes);
    return true;
}

std::string encode_frame(const FrameHead& head, const FrameText& text) {
    std::string frame(static_cast<std::size_t>(FRAME_HEADER_BYTES + encoded_body_bytes(text)), '\0');
    unsigned char* d = reinterpret_cast<unsigned char*>(frame.data());
    if (!encode_frame(d, d + frame.size(), head, text)) {
        frame.clear();  // never reached, since the buffer has the exact size
    }
    return frame;
}

OutgoingFrame::OutgoingFrame(const FrameHead& head, std::shared_ptr<const FrameText> unchanging_text)
    : text(std::move(unchanging_text)) {
    const std::uint64_t body_bytes = encoded_body_bytes(*text);
    all_bytes = static_cast<std::size_t>(FRAME_HEADER_BYTES + body_bytes);
    short_bytes.resize(all_bytes - static_cast<std::size_t>(long_string_bytes(*text)));
    unsigned char* const begin = reinterpret_cast<unsigned char*>(short_bytes.data());
    unsigned char* d = begin;
    put_frame(d, body_bytes, head, *text, [this, begin](unsigned char*& cursor, std::string_view part) {
        if (!is_long(part)) {
            put_bytes(cursor, part);
            return;
        }
        end_short_piece(static_cast<std::size_t>(cursor - begin));
        pieces.push_back({part.data(), 0, part.size()});
    });
    end_short_piece(short_bytes.size());
}

OutgoingFrame::OutgoingFrame(std::string frame)
    : short_bytes(std::move(frame)), all_bytes(short_bytes.size()) {
    end_short_piece(all_bytes);
}

void OutgoingFrame::end_short_piece(std::size_t end) {
    if (end > short_bytes_in_pieces) {
        pieces.push_back({nullptr, short_bytes_in_pieces, end - short_bytes_in_pieces});
        short_bytes_in_pieces = end;
    }
}

std::string_view OutgoingFrame::piece(std::size_t idx) const {
    const Piece& piece = pieces[idx];
    const char* const bytes = piece.long_bytes != nullptr ? piece.long_bytes : short_bytes.data();
    return {bytes + piece.start, piece.size};
}

}  // namespace comm_socket

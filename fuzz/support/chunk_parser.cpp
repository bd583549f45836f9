#include "fuzz/support/chunk_parser.h"

#include <algorithm>

namespace {

constexpr std::uint32_t LONGEST_MESSAGE = 1048575;
constexpr std::uint32_t LARGEST_CHUNK_SIZE = 4194304;

std::uint32_t big_endian(std::string_view bytes) {
    std::uint32_t value = 0;
    for (const char byte : bytes) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

std::uint32_t little_endian(std::string_view bytes) {
    const std::string turned(bytes.rbegin(), bytes.rend());
    return big_endian(turned);
}

}  // namespace

bool ChunkParser::take(std::size_t c, std::string_view& bytes) {
    if (rest.size() < c) {
        rest = {};
        return false;
    }
    bytes = rest.substr(0, c);
    rest.remove_prefix(c);
    return true;
}

Parsed ChunkParser::basic_header(unsigned& fmt, std::uint32_t& id) {
    std::string_view bytes;
    if (!take(1, bytes)) {
        return Parsed::END;
    }
    const std::uint32_t first = big_endian(bytes);
    fmt = first / 64;
    id = first % 64;
    if (id < 2) {
        if (!take(id + 1, bytes)) {
            return Parsed::END;
        }
        id = 64 + little_endian(bytes);
    }
    return streams.size() >= stream_limit ? Parsed::REFUSED : Parsed::MESSAGE;
}

Parsed ChunkParser::message_header(unsigned fmt, Stream& stream) {
    std::string_view time;
    std::string_view length_and_type;
    std::string_view id;
    if ((fmt <= 2 && !take(3, time)) || (fmt <= 1 && !take(4, length_and_type)) ||
        (fmt == 0 && !take(4, id))) {
        return Parsed::END;
    }
    if (fmt <= 1) {
        stream.length = big_endian(length_and_type.substr(0, 3));
        stream.type = static_cast<std::uint8_t>(length_and_type[3]);
    }
    if (fmt != 0) {
        stream.delta = fmt == 3 ? stream.delta : big_endian(time);
        stream.timestamp += stream.delta;
        return Parsed::MESSAGE;
    }
    if (time == "\xFF\xFF\xFF" && !take(4, time)) {
        return Parsed::END;
    }
    stream.timestamp = big_endian(time);
    stream.delta = 0;
    stream.message_stream_id = little_endian(id);
    return Parsed::MESSAGE;
}

Parsed ChunkParser::payload(std::uint32_t length, std::string& bytes) {
    bytes.clear();
    while (bytes.size() < length) {
        if (!bytes.empty()) {
            unsigned fmt = 0;
            std::uint32_t any_id = 0;
            const Parsed header = basic_header(fmt, any_id);
            if (header != Parsed::MESSAGE) {
                return header;
            }
            if (fmt != 3) {
                return Parsed::REFUSED;
            }
        }
        std::string_view piece;
        if (!take(std::min<std::size_t>(chunk_size, length - bytes.size()), piece)) {
            return Parsed::END;
        }
        bytes += piece;
    }
    return Parsed::MESSAGE;
}

// Carries out the message if it is a control message. False if the server would not accept it.
bool ChunkParser::obey(const ParsedMessage& message) {
    if (message.message_stream_id != 0 || message.chunk_stream_id != 2 || message.type == 3 ||
        message.type == 4 || message.type == 5) {
        return true;
    }
    if (message.type != 1 || message.payload.size() < 4) {
        return false;
    }
    chunk_size = big_endian(std::string_view(message.payload).substr(0, 4));
    return chunk_size >= 1 && chunk_size <= LARGEST_CHUNK_SIZE;
}

Parsed ChunkParser::next(ParsedMessage& message) {
    unsigned fmt = 0;
    Parsed parsed = basic_header(fmt, message.chunk_stream_id);
    if (parsed != Parsed::MESSAGE) {
        return parsed;
    }
    Stream& stream = streams[message.chunk_stream_id];
    parsed = message_header(fmt, stream);
    if (parsed != Parsed::MESSAGE) {
        return parsed;
    }
    message.timestamp = stream.timestamp;
    message.type = stream.type;
    message.message_stream_id = stream.message_stream_id;
    if (stream.length > LONGEST_MESSAGE) {
        return Parsed::REFUSED;
    }
    parsed = payload(stream.length, message.payload);
    if (parsed == Parsed::MESSAGE && !obey(message)) {
        return Parsed::REFUSED;
    }
    return parsed;
}

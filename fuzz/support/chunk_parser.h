// An independent reader of chunk streams, for comparison: it takes all bytes at once, from memory, and shares
// no code with the server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

struct ParsedMessage {
    std::uint32_t chunk_stream_id = 0;
    std::uint32_t timestamp = 0;
    std::uint32_t message_stream_id = 0;
    std::uint8_t type = 0;
    std::string payload;

    bool operator==(const ParsedMessage&) const = default;
};

enum class Parsed {
    MESSAGE,
    END,      // the bytes end, perhaps within a message
    REFUSED,  // a rule is broken
};

class ChunkParser {
  public:
    static constexpr std::size_t NO_LIMIT = static_cast<std::size_t>(-1);
    static constexpr std::size_t SERVER_LIMIT = 64;

    // With max_streams chunk streams in use, the next chunk is refused.
    ChunkParser(std::string_view stream, std::size_t max_streams) : rest(stream), stream_limit(max_streams) {}

    // Reads the next message. One that sets the chunk size has taken effect when it is returned.
    Parsed next(ParsedMessage& message);

    [[nodiscard]] std::size_t bytes_left() const { return rest.size(); }

  private:
    struct Stream {
        std::uint32_t timestamp = 0;
        std::uint32_t delta = 0;
        std::uint32_t length = 0;
        std::uint32_t message_stream_id = 0;
        std::uint8_t type = 0;
    };

    bool take(std::size_t c, std::string_view& bytes);
    // Puts the format into fmt and the chunk stream into id.
    Parsed basic_header(unsigned& fmt, std::uint32_t& id);
    Parsed message_header(unsigned fmt, Stream& stream);
    Parsed payload(std::uint32_t length, std::string& bytes);
    [[nodiscard]] bool obey(const ParsedMessage& message);

    std::string_view rest;
    std::size_t stream_limit;
    std::uint32_t chunk_size = 128;
    std::map<std::uint32_t, Stream> streams;
};

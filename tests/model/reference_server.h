// A second, simplest implementation of how the server handles its clients' messages: pacing, takeover,
// rebasing, the codec lock, late joiners, metadata and the registry.
//
// It shares no code and no type with the server. It gets the meaning of a message along with its bytes, so it
// never parses. It has no threads, locks or sockets: a connection is an input queue and an output queue, and
// time is an argument. If it differs from the server, one of them is wrong.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace reference {

// An incoming or outgoing message.
struct Message {
    std::uint8_t type = 0;
    std::uint32_t timestamp = 0;
    std::uint32_t chunk_stream_id = 0;
    std::uint32_t message_stream_id = 0;
    std::string payload;
};

// A publisher's metadata about its stream.
struct Metadata {
    enum class Kind { OBJECT, ECMA_ARRAY, NUMBER, NOTHING };
    using Value = std::variant<double, std::string>;

    Kind kind = Kind::NOTHING;
    double number = 0;  // for Kind::NUMBER
    std::map<std::string, Value> members;

    bool has_members() const { return kind == Kind::OBJECT || kind == Kind::ECMA_ARRAY; }
    std::string encoded() const;
};

// The request in a message from a client.
enum class Request {
    MEDIA,
    CREATE_STREAM,
    PUBLISH,
    PUBLISH_RECORD,  // with a publishing type that is not served
    PLAY,
    RELEASE_STREAM,
    STREAM_LENGTH,
    DELETE_STREAM,
    UNKNOWN_COMMAND,
    EMPTY_COMMAND,
    SET_METADATA,
    BARE_METADATA,  // without the setter's name first
    SET_OTHER,
    SET_NOTHING,  // the setter's name only
    EMPTY_DATA,
    OTHER_TYPE
};

struct Received {
    Request request = Request::OTHER_TYPE;
    Message message;
    std::string name;   // of the stream, the unknown command or the unknown data
    Metadata metadata;  // for SET_METADATA
    double transaction_id = 0;
};

enum Track : std::size_t { AUDIO = 0, VIDEO = 1, TRACKS = 2 };

struct Connection {
    bool open = true;
    bool reader_runs = true, reader_ended = false;
    bool writer_runs = true, writer_ended = false;
    bool drop = false;

    std::deque<Received> in;
    std::vector<Message> out;

    bool admitted = false;  // to an application
    enum class Role { NONE, PUBLISHER, PLAYER } role = Role::NONE;
    std::string name;
    std::uint32_t stream_id = 0;
    bool stream_id_in_doubt = false;

    // publisher: pacing
    std::uint64_t clock_start_us = 0;  // on a player: start of its relay clock
    std::uint32_t first_timestamp = 0;
    std::uint64_t stalls_at_us = 0;

    // publisher: the format it announced; player: the format it received
    std::int32_t width = -1, height = -1;
    std::array<std::uint32_t, TRACKS> codec_id{};
    Metadata metadata;

    std::array<std::int32_t, TRACKS> lock{-1, -1};
    std::array<std::optional<Message>, TRACKS> saved_header;

    // player: its clock
    std::optional<std::uint32_t> source_base;
    std::uint32_t offset = 0;
    std::uint32_t last_sent = 0;
    std::array<bool, TRACKS> header_delivered{};
};

struct Stream {
    std::uint64_t active_us = 0;
    std::optional<std::size_t> publisher;
    std::vector<std::size_t> players;
};

class Server {
  public:
    static constexpr std::size_t SLOTS = 128;

    // draw is the source of random numbers. The search for a free slot begins at first_slot.
    Server(std::function<std::uint32_t()> draw, std::size_t first_slot)
        : draw_number(std::move(draw)), next_slot(first_slot) {}

    // Adds a client, admitted to an application or not. Returns its slot.
    std::optional<std::size_t> join(bool admitted);
    // Makes one pass over all connections.
    void pass(std::uint64_t time_us);
    void end(std::uint64_t time_us);

    // Returns the connection in a slot, or null.
    Connection* at(std::size_t slot) { return slots[slot].get(); }

    std::map<std::string, Stream> streams;
    std::string said;  // everything printed; the caller empties it

  private:
    std::uint32_t draw_id();
    void serve(std::size_t slot);
    void close(std::size_t slot);
    void remove(std::size_t slot);
    void dispose_one();

    // False if the connection must be dropped.
    bool command(std::size_t slot, const Received& received);
    bool play(std::size_t slot, const Received& received);
    bool publish(std::size_t slot, const Received& received);
    bool data(std::size_t slot, const Received& received);

    // False if the message must wait.
    bool media(std::size_t slot, const Message& message);
    bool relay(std::size_t slot, const Message& message);
    bool agree_on_codec(Connection& publisher, Track track, const std::string& payload);
    void relay_to(Connection& player, const Connection& publisher, const Message& message);
    void time_reset(const Stream& stream);
    void leave(const std::string& name, std::size_t slot);

    void tell(Connection& player, const Metadata& metadata);
    bool format_fits(Connection& player, const Metadata& metadata);

    std::function<std::uint32_t()> draw_number;
    std::size_t next_slot;
    std::uint64_t now_us = 0;
    std::array<std::unique_ptr<Connection>, SLOTS> slots;
};

}  // namespace reference

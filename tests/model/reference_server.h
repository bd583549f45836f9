// A second implementation, as simple as possible, of how the server handles its clients' messages: pacing,
// takeover, rebasing, the codec lock, late joiners, metadata and the registry.
//
// It shares no code and no type with the server. It gets the meaning of a message along with its bytes, so it
// never parses. It has no threads, locks or sockets: a connection is an input queue and an output queue, and
// time is an argument. If it differs from the server, one of them is wrong.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace reference {

// An incoming or outgoing message.
struct Message {
    std::uint8_t type = 0;
    std::uint32_t timestamp = 0;
    std::uint32_t chunk_stream_id = 0;
    std::uint32_t message_stream_id = 0;
    std::string payload;

    bool operator==(const Message& other) const = default;
};

enum Track : std::size_t { AUDIO = 0, VIDEO = 1, TRACKS = 2 };

// A publisher's metadata about its stream. 0: absent.
struct Metadata {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::array<std::uint32_t, TRACKS> codec_id{};
    std::uint32_t serial = 0;

    std::string encoded() const;
};

// The request in a message from a client.
enum class Request { MEDIA, CREATE_STREAM, PUBLISH, PLAY, SET_METADATA };

constexpr double TRANSACTION_ID = 4;  // of all commands

struct Received {
    Request request = Request::MEDIA;
    Message message;
    std::string name = {};   // of the stream
    Metadata metadata = {};  // for SET_METADATA
};

struct Connection {
    bool reader_ended = false, reader_joined = false;
    bool drop = false;

    std::deque<Received> in;
    std::vector<Message> out;

    enum class Role { NONE, PUBLISHER, PLAYER } role = Role::NONE;
    std::string name;
    std::uint32_t stream_id = 0;
    bool stream_id_in_doubt = false;

    // publisher: pacing
    std::uint64_t clock_start_us = 0;  // on a player: start of its relay clock
    std::uint32_t first_timestamp = 0;
    std::uint64_t stalls_at_us = 0;

    // publisher: the format it announced; player: the format it received
    Metadata format;
    std::optional<Metadata> metadata;

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
    explicit Server(const std::minstd_rand& random_numbers) : draw_number(random_numbers) {}

    // Makes one pass over all connections.
    void pass(std::uint64_t time_us);

    // By slot. The caller adds clients.
    std::map<std::size_t, Connection> connections;
    std::map<std::string, Stream> streams;
    std::string said;  // everything printed; the caller empties it

  private:
    void serve(std::size_t slot, Connection& conn);
    void close(std::size_t slot, Connection& conn);
    void dispose_one();

    // False if the connection must be dropped.
    bool command(std::size_t slot, Connection& conn, const Received& received);
    void play(std::size_t slot, Connection& conn);
    void publish(std::size_t slot, Connection& conn);
    void data(std::size_t slot, Connection& conn, const Received& received);

    // False if the message must wait.
    bool media(std::size_t slot, Connection& conn, const Message& message);
    bool relay(std::size_t slot, Connection& conn, const Message& message);
    bool agree_on_codec(Connection& publisher, Track track, const std::string& payload);
    void relay_to(Connection& player, const Connection& publisher, const Message& message);
    void set_publisher(Stream& stream, std::size_t slot);
    void leave(const std::string& name, std::size_t slot);

    void tell(Connection& player, const Metadata& metadata);
    bool format_fits(Metadata& known, const Metadata& told);

    std::minstd_rand draw_number;
    std::uint64_t now_us = 0;
};

}  // namespace reference

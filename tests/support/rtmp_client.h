// An RTMP client for tests. It controls every byte it sends and strictly checks every byte it receives.
//
// 1. The reader accepts only what the server is allowed to send: each message starts with a format 0 header
//    in its shortest form and continues, without other chunks in between, with format 3 headers of the same
//    chunk stream. The chunk size is 128 until the server echoes a set chunk size message; the echoed size
//    applies from the next message on.
// 2. Sending and reading share only the socket, so one thread may read while another sends.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/amf_bytes.h"
#include "tests/support/chunk_bytes.h"
#include "tests/support/client_socket.h"
#include "tests/support/time_limits.h"

struct RtmpMessage {
    std::uint32_t csid = 0;
    std::uint32_t timestamp = 0;
    std::uint8_t type = 0;
    std::uint32_t stream_id = 0;
    Bytes payload;
    Bytes raw;                             // as on the wire, headers included
    std::vector<std::size_t> chunk_sizes;  // payload bytes of each chunk
    TimePoint arrival;                     // when its last byte was read from the socket
};

struct ClientOptions {
    std::string server = "127.0.0.1";
    std::uint16_t port = 1935;
    std::string local_address;     // empty: any
    int receive_buffer_bytes = 0;  // 0: system default
};

struct HandshakeOptions {
    Bytes c1 = pattern_bytes(1536, 7);
    // Sizes of the first sends of C0 and C1; the rest follows in one send.
    std::vector<std::size_t> pieces;
    // Modifies C2, which by default echoes S1.
    std::function<void(Bytes&)> change_c2;
};

struct HandshakeReply {
    Bytes s0;
    Bytes s1;
    Bytes s2;
};

class RtmpClient : public ClientSocket {
  public:
    // Connects over TCP and sends nothing.
    explicit RtmpClient(const ClientOptions& options = {});

    // Performs the whole handshake. Throws if the server does not complete its part.
    HandshakeReply handshake(const HandshakeOptions& options = {});

    // ---- sending
    void send_in_pieces(std::string_view bytes, std::size_t piece_bytes);
    void send_message(const OutMessage& message);
    // Sends a set chunk size message and uses that size for everything sent after it. The read size changes
    // when the server's echo is read.
    void set_chunk_size(std::uint32_t chunk_bytes);
    std::uint32_t send_chunk_size() const { return send_chunk_bytes; }
    // From now on, appends bytes_sent() to ends after each message sent.
    void note_message_ends(std::vector<std::uint64_t>& ends) { message_ends = &ends; }

    void send_command(const Bytes& payload, std::uint32_t csid = 3, std::uint32_t stream_id = 0);
    void send_connect(std::string_view app = "ombrex-live", double transaction_id = 1);
    void send_create_stream(double transaction_id = 2);
    void send_publish(std::string_view name, double transaction_id = 3, std::string_view type = "live");
    void send_play(std::string_view name, double transaction_id = 3);
    // Media and data carry the message stream id returned by create_stream (0 without it). Audio and data use
    // chunk stream 4, video 6.
    void send_audio(std::uint32_t timestamp, const Bytes& payload);
    void send_video(std::uint32_t timestamp, const Bytes& payload);
    void send_data(const Bytes& payload);
    // Sends "@setDataFrame", "onMetaData" and the value.
    void send_metadata(const Bytes& value);

    // Reads exactly count raw bytes.
    Bytes read_bytes(std::size_t count, Milliseconds wait = DEFAULT_WAIT) {
        return take_bytes(count, SteadyClock::now() + wait);
    }

    // ---- reading messages (rtmp_client_reading.cpp)
    //
    // Returns the next message that is not an acknowledgement. The server's reader thread acknowledges while
    // its main thread replies, so an acknowledgement may come before or after any message.
    RtmpMessage read_message(Milliseconds wait = DEFAULT_WAIT);
    // Returns the next message, including acknowledgements.
    RtmpMessage read_any_message(Milliseconds wait = DEFAULT_WAIT);
    // Returns the next message, including acknowledgements. Empty if the wait ends or the server
    // closes first.
    std::optional<RtmpMessage> try_read_message(Milliseconds wait);
    // Returns the next message, which must have this type. Skips acknowledgements unless they are expected.
    RtmpMessage expect_message(std::uint8_t type, Milliseconds wait = DEFAULT_WAIT);
    // Returns the number in an acknowledgement, which must be the next message.
    std::uint32_t expect_acknowledgement(Milliseconds wait = DEFAULT_WAIT);
    std::uint32_t read_chunk_size() const { return read_chunk_bytes; }

    // Reads until the server closes and returns how it closed. If rest is given, it receives the messages
    // before that.
    CloseKind expect_closed(Milliseconds wait = DEFAULT_WAIT, std::vector<RtmpMessage>* rest = nullptr);
    // Requires that the server closes after sending at most acknowledgements.
    CloseKind expect_closed_without_answer(Milliseconds wait = DEFAULT_WAIT);

    // ---- whole exchanges: the request, and the server's answer to it (rtmp_client_reading.cpp)
    RtmpMessage connect_app(std::string_view app = "ombrex-live", double transaction_id = 1);
    std::uint32_t create_stream(double transaction_id = 2);
    RtmpMessage publish(std::string_view name, double transaction_id = 3);
    RtmpMessage play(std::string_view name, double transaction_id = 3);
    // Sends a releaseStream and waits for its reply; everything sent before has then been handled. Returns
    // the messages received before the reply, without acknowledgements.
    std::vector<RtmpMessage> round_trip(Milliseconds wait = DEFAULT_WAIT);

    // ---- ending
    void close_with_reset();
    // The address as the server sees it, such as "127.0.0.1:40312".
    std::string local_address() const;

    std::uint32_t media_stream_id = 0;

  private:
    struct HeaderSizes {
        std::size_t header;
        std::size_t payload;
    };
    std::optional<HeaderSizes> parse_header(std::string_view data, RtmpMessage& message) const;
    std::optional<RtmpMessage> parse_message();

    // Used by the sending thread.
    std::uint32_t send_chunk_bytes = DEFAULT_CHUNK_SIZE;
    std::vector<std::uint64_t>* message_ends = nullptr;
    double round_trips = 0;
    // Used by the reading thread.
    std::uint32_t read_chunk_bytes = DEFAULT_CHUNK_SIZE;
};

// Clients that have completed the handshake; been accepted by an application; started to publish; started
// to play.
RtmpClient handshaken_client(const ClientOptions& options = {});
RtmpClient connected_client(std::string_view app = "ombrex-live", const ClientOptions& options = {});
RtmpClient publishing_client(std::string_view name, const ClientOptions& options = {});
RtmpClient playing_client(std::string_view name, const ClientOptions& options = {});

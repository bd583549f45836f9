#include "tools/v9_rtmp_ctl/rtmp_probe.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/io_errors.h"
#include "tools/v9_rtmp_ctl/listen_address.h"

namespace {

using Bytes = std::string;

constexpr std::size_t HANDSHAKE_BYTES = 1536;
constexpr std::size_t CHUNK_BYTES = 128;
constexpr std::size_t MAX_MESSAGE_BYTES = 1 << 20;
constexpr int RTMP_VERSION = 3;

enum MessageType : std::uint8_t { VIDEO = 9, COMMAND = 20 };

// Ends a probe; its text is reported to the user.
struct ProbeFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

Bytes big_endian(std::uint64_t value, int byte_count) {
    Bytes bytes;
    for (int i = byte_count - 1; i >= 0; --i) {
        bytes += static_cast<char>(value >> (8U * static_cast<unsigned>(i)));
    }
    return bytes;
}

std::uint64_t read_big_endian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes) {
        value = value << 8U | static_cast<unsigned char>(byte);
    }
    return value;
}

Bytes amf_number(double value) {
    return Bytes(1, '\0') + big_endian(std::bit_cast<std::uint64_t>(value), 8);
}

Bytes amf_name(std::string_view text) {
    return big_endian(text.size(), 2) + Bytes(text);
}

Bytes amf_string(std::string_view text) {
    return '\x02' + amf_name(text);
}

const Bytes AMF_NULL(1, '\x05');

// Returns a message split into chunks.
Bytes chunked(MessageType type, std::uint32_t stream_id, std::uint32_t timestamp, const Bytes& payload) {
    constexpr char CHUNK_STREAM = 3;
    constexpr char CONTINUATION = '\xC3';
    Bytes bytes =
        CHUNK_STREAM + big_endian(timestamp, 3) + big_endian(payload.size(), 3) + static_cast<char>(type);
    for (unsigned i = 0; i < 4; ++i) {
        bytes += static_cast<char>(stream_id >> 8U * i);
    }
    for (std::size_t at = 0; at < payload.size(); at += CHUNK_BYTES) {
        bytes += (at == 0 ? Bytes() : Bytes(1, CONTINUATION)) + payload.substr(at, CHUNK_BYTES);
    }
    return bytes;
}

struct Message {
    std::uint8_t type = 0;
    Bytes payload;
};

class Client {
  public:
    Client(const RtmpAddress& address, std::uint64_t deadline)
        : deadline_us(deadline), fd(connect_to(address)) {}
    ~Client() { close(fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void handshake() {
        const Bytes c1 = big_endian(0, 8) + Bytes(HANDSHAKE_BYTES - 8, 'v');
        send(static_cast<char>(RTMP_VERSION) + c1);
        const Bytes s0 = receive(1);
        if (s0[0] != RTMP_VERSION) {
            throw ProbeFailure("the program there does not speak RTMP");
        }
        const Bytes s1 = receive(HANDSHAKE_BYTES);
        if (receive(HANDSHAKE_BYTES).substr(8) != c1.substr(8)) {
            throw ProbeFailure("the answer to the RTMP handshake is not an echo");
        }
        send(s1);
    }

    void connect_application() {
        send(chunked(COMMAND, 0, 0,
                     amf_string("connect") + amf_number(1) + '\x03' + amf_name("app") +
                         amf_string("ombrex-live") + big_endian(9, 3)));
        static_cast<void>(wait_for_command("_result"));
    }

    void create_stream() {
        send(chunked(COMMAND, 0, 0, amf_string("createStream") + amf_number(2) + AMF_NULL));
        // The reply is "_result", the transaction id, null and the message stream id.
        const Bytes result = wait_for_command("_result");
        constexpr std::size_t NUMBER_AT = 10 + 9 + 1 + 1;
        if (result.size() < NUMBER_AT + 8) {
            throw ProbeFailure("the server returned no message stream id");
        }
        stream_id = static_cast<std::uint32_t>(
            std::bit_cast<double>(read_big_endian(std::string_view(result).substr(NUMBER_AT, 8))));
    }

    void begin(const std::string& command, const std::string& stream) {
        const Bytes live = command == "publish" ? amf_string("live") : Bytes();
        send(chunked(COMMAND, stream_id, 0,
                     amf_string(command) + amf_number(3) + AMF_NULL + amf_string(stream) + live));
        static_cast<void>(wait_for_command("onStatus"));
    }

    void send_video(std::uint32_t timestamp, const Bytes& payload) {
        send(chunked(VIDEO, stream_id, timestamp, payload));
    }

    Message read_message() {
        const Bytes first = receive(1);
        constexpr unsigned CHUNK_STREAM_BITS = 0x3F;
        // Ids from 64 on take more bytes.
        const unsigned chunk_stream = static_cast<unsigned char>(first[0]) & CHUNK_STREAM_BITS;
        static_cast<void>(receive(chunk_stream == 0 ? 1 : chunk_stream == 1 ? 2 : 0));
        if (static_cast<unsigned char>(first[0]) > CHUNK_STREAM_BITS) {
            throw ProbeFailure("the server's messages cannot be read");
        }
        const Bytes header = receive(11);
        if (header.substr(0, 3) == "\xff\xff\xff") {
            static_cast<void>(receive(4));
        }
        const std::size_t length =
            static_cast<std::size_t>(read_big_endian(std::string_view(header).substr(3, 3)));
        if (length > MAX_MESSAGE_BYTES) {
            throw ProbeFailure("the server's messages cannot be read");
        }
        Message message{static_cast<std::uint8_t>(header[6]), ""};
        while (message.payload.size() < length) {
            static_cast<void>(receive(message.payload.empty() ? 0 : 1));
            message.payload += receive(std::min(CHUNK_BYTES, length - message.payload.size()));
        }
        return message;
    }

    // Whether input arrives before moment_us.
    [[nodiscard]] bool wait_readable(std::uint64_t moment_us) const {
        return wait_for(POLLIN, std::min(moment_us, deadline_us));
    }

  private:
    struct FreeAddresses {
        void operator()(addrinfo* all) const { freeaddrinfo(all); }
    };

    int connect_to(const RtmpAddress& address) {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
        if (error != 0) {
            throw ProbeFailure(std::string("its address cannot be found (") + gai_strerror(error) + ")");
        }
        const std::unique_ptr<addrinfo, FreeAddresses> all(found);
        int reason = 0;
        for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
            const int socket_fd =
                socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
            reason = connect_socket(socket_fd, *at);
            if (reason == 0) {
                return socket_fd;
            }
            close(socket_fd);
        }
        throw ProbeFailure(std::string("it does not accept connections (") + std::strerror(reason) + ")");
    }

    // Returns an errno, or 0 once connected.
    int connect_socket(int socket_fd, const addrinfo& address) const {
        if (socket_fd < 0) {
            return errno;
        }
        if (connect(socket_fd, address.ai_addr, address.ai_addrlen) == 0) {
            return 0;
        }
        if (errno != EINPROGRESS) {
            return errno;
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (!wait_for_socket(socket_fd, POLLOUT, deadline_us)) {
            return ETIMEDOUT;
        }
        return getsockopt(socket_fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
    }

    static bool wait_for_socket(int socket_fd, short events, std::uint64_t moment_us) {
        const std::uint64_t now_us = clock_us();
        pollfd waited{socket_fd, events, 0};
        return poll(&waited, 1,
                    static_cast<int>(moment_us > now_us ? (moment_us - now_us + 999) / 1000 : 0)) > 0;
    }

    [[nodiscard]] bool wait_for(short events, std::uint64_t moment_us) const {
        return wait_for_socket(fd, events, moment_us);
    }

    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            if (!wait_for(POLLOUT, deadline_us)) {
                throw ProbeFailure("it does not read the data it is sent");
            }
            const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0 && !can_try_again(errno)) {
                throw ProbeFailure("it closed the connection");
            }
            bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
        }
    }

    Bytes receive(std::size_t count) {
        std::array<char, 4096> buffer{};
        while (received.size() < count) {
            if (!wait_for(POLLIN, deadline_us)) {
                throw ProbeFailure("it did not answer in time");
            }
            const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
            if (length == 0 || (length < 0 && !can_try_again(errno))) {
                throw ProbeFailure("it closed the connection");
            }
            received.append(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
        }
        Bytes taken = received.substr(0, count);
        received.erase(0, count);
        return taken;
    }

    // Returns the payload of the next command of this name.
    Bytes wait_for_command(std::string_view name) {
        const Bytes beginning = amf_string(name);
        for (;;) {
            Message message = read_message();
            if (message.type == COMMAND && message.payload.starts_with(beginning)) {
                return std::move(message.payload);
            }
        }
    }

    const std::uint64_t deadline_us;
    const int fd;
    Bytes received;
    std::uint32_t stream_id = 0;
};

template <typename Probe>
ProbeResult run_probe(const Probe& probe) {
    ProbeResult result;
    const std::uint64_t began_us = clock_us();
    try {
        probe();
    } catch (const ProbeFailure& failure) {
        result.problem = failure.what();
    }
    result.took_us = clock_us() - began_us;
    return result;
}

}  // namespace

std::optional<RtmpAddress> parse_rtmp_address(const std::string& text) {
    const std::optional<HostAndPort> split = split_host(text);
    if (!split || split->host.empty() || split->port.value_or(0) == 0) {
        return std::nullopt;
    }
    return RtmpAddress{split->host, std::to_string(*split->port)};
}

ProbeResult probe_handshake(const RtmpAddress& address, std::uint64_t max_us) {
    return run_probe([&] { Client(address, clock_us() + max_us).handshake(); });
}

ProbeResult probe_stream(const RtmpAddress& address, const std::string& stream, std::uint64_t max_us) {
    constexpr std::uint64_t STEP_US = 40000;
    // An H.264 frame that is not decodable.
    const Bytes frame = Bytes("\x27\x01\0\0\0", 5) + stream;
    return run_probe([&] {
        const std::uint64_t deadline_us = clock_us() + max_us;
        Client player(address, deadline_us);
        Client publisher(address, deadline_us);
        for (Client* const client : {&player, &publisher}) {
            client->handshake();
            client->connect_application();
            client->create_stream();
        }
        player.begin("play", stream);
        publisher.begin("publish", stream);
        for (std::uint32_t timestamp = 0; clock_us() < deadline_us; timestamp += STEP_US / 1000) {
            publisher.send_video(timestamp, frame);
            while (player.wait_readable(clock_us() + STEP_US)) {
                const Message message = player.read_message();
                if (message.type == VIDEO && message.payload == frame) {
                    return;
                }
            }
        }
        throw ProbeFailure("the published stream did not reach the player");
    });
}

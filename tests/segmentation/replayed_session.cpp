#include "tests/segmentation/replayed_session.h"

#include <algorithm>
#include <limits>

#include "core/connection.h"
#include "core/connection_table.h"
#include "relay/stream_registry.h"
#include "rtmp/session_threads.h"
#include "tests/support/amf_bytes.h"
#include "tests/support/connection_fixture.h"
#include "tests/support/media_bytes.h"
#include "tests/support/silent_system.h"

namespace {

constexpr std::size_t HANDSHAKE_RANDOM_OFFSET = 8;
constexpr std::uint64_t START_US = 1000000000;
constexpr std::uint64_t PASS_US = 10000;
// After the last byte, so that media that was held back is sent as well.
constexpr int PASSES_AFTERWARDS = 300;

constexpr int CLIENT_FD = 1000;
constexpr int OTHER_FD = 1001;

constexpr std::uint8_t TYPE_ACKNOWLEDGEMENT = 3;
constexpr std::uint8_t TYPE_AUDIO = 8;
constexpr std::uint8_t TYPE_VIDEO = 9;
constexpr std::uint8_t TYPE_DATA = 18;
constexpr std::uint8_t TYPE_COMMAND = 20;

std::uint32_t random_number(std::uint32_t draw) {
    return ((draw + 1) * 2654435761U) >> 1;
}

// The reader's connection was dropped while it waited, which would cancel its thread.
struct ReaderCancelled {};

class Replaying {
  public:
    Replaying(const Session& a_session, const std::vector<std::size_t>& ends, MainLoop a_main_loop)
        : session(a_session), segment_ends(ends), main_loop(a_main_loop) {
        current = this;
        free_all_connections();
        fake_clock_us = std::numeric_limits<std::uint64_t>::max() / 2;
        while (stream_count() != 0) {
            dispose_idle_streams();
        }
        connections_free_scan = 0;
        fake_clock_us = START_US;
        printed_text.clear();
        printed_dumps.clear();
        random_source = [draws = 0U]() mutable { return random_number(draws++); };
    }
    Replaying(const Replaying&) = delete;
    Replaying& operator=(const Replaying&) = delete;
    ~Replaying() {
        free_all_connections();
        current = nullptr;
    }

    Replay run() {
        add_other();
        RTMPConnection& conn = *new_connection(CLIENT_FD, "192.0.2.7:50512");
        client_slot = conn.conn_idx;
        reading = true;
        try {
            reader_thread(&conn);
        } catch (const ReaderCancelled&) {
        }
        reading = false;
        for (int i = 0; i < PASSES_AFTERWARDS; ++i) {
            sleep();
        }
        result.printed = printed_text + printed_dumps;
        return std::move(result);
    }

    // Stands in for recv(2) of the client's socket.
    std::size_t receive(void* buffer, std::size_t size) {
        const bool all_is_read = position == segment_end();
        if (all_is_read || main_loop == MainLoop::AT_EVERY_READ) {
            take_turns();
        }
        if (session.plays && position == session.media_at) {
            publish_media();
        }
        if (all_is_read) {
            if (position == session.bytes.size()) {
                return 0;
            }
            result.waits.push_back(position);
            ++segments_read;
        }
        if (main_loop == MainLoop::AT_EVERY_READ) {
            size = without_read_ahead(size);
        }
        std::size_t count = std::min(size, segment_end() - position);
        if (session.plays && position < session.media_at) {
            count = std::min(count, session.media_at - position);  // The client waits for the media there.
        }
        std::memcpy(buffer, session.bytes.data() + position, count);
        position += count;
        return count;
    }

    void send(int fd, std::string_view bytes) {
        Output& output = result.sent[fd == CLIENT_FD ? "client" : session.plays ? "publisher" : "player"];
        output.bytes += bytes;
        (sending_acknowledgement ? output.acknowledgements : output.others) += bytes;
    }

    // A sleep of the server: time advances, and the other parts run.
    void sleep() {
        fake_clock_us += PASS_US;
        take_turns();
    }

    static Replaying* current;

  private:
    std::size_t segment_end() const {
        return segments_read < segment_ends.size() ? segment_ends[segments_read] : session.bytes.size();
    }

    // The main loop can run between any two reads only if the server requests no more than it needs.
    std::size_t without_read_ahead(std::size_t size) {
        ReadAhead& ahead = get_connection(client_slot)->read_ahead;
        return std::exchange(ahead.enabled, false) ? 1 : size;
    }

    void take_turns() {
        // Queued messages are sent before the main loop may end the connection.
        write_all();
        idle_all_connections();
        write_all();
        if (reading && get_connection(client_slot) == nullptr) {
            throw ReaderCancelled();
        }
    }

    void write_all() {
        for (std::size_t slot = 0; slot < 2; ++slot) {
            RTMPConnection* const conn = get_connection(slot);
            if (conn == nullptr) {
                continue;
            }
            // One by one, to tell acknowledgements from other messages.
            std::deque<OutgoingPacket> waiting = std::move(conn->connection_out);
            conn->connection_out.clear();
            for (OutgoingPacket& pkt : waiting) {
                sending_acknowledgement = pkt.chunk.message_type_id == TYPE_ACKNOWLEDGEMENT;
                conn->connection_out.push_back(std::move(pkt));
                EXPECT_TRUE(conn->rtmp_send_packet());
                sending_acknowledgement = false;
            }
        }
    }

    void add_other() {
        RTMPConnection& conn = *new_connection(OTHER_FD, "192.0.2.8:50512");
        conn.app_name = "ombrex-live";
        other_slot = conn.conn_idx;
        const Bytes name = amf_string(session.stream);
        if (!session.plays) {
            receive_other(TYPE_COMMAND, 0, amf_string("play") + amf_number(4) + amf_null() + name);
        } else {
            receive_other(TYPE_COMMAND, 0,
                          amf_string("publish") + amf_number(4) + amf_null() + name + amf_string("live"));
            receive_other(TYPE_DATA, 0,
                          amf_string("@setDataFrame") + amf_string("onMetaData") +
                              amf_object({{"width", amf_number(320)}, {"height", amf_number(240)}}));
            receive_other(TYPE_AUDIO, 1000, aac_header());
            receive_other(TYPE_VIDEO, 1000, avc_header());
        }
        idle_all_connections();
        write_all();
    }

    void receive_other(std::uint8_t type, std::uint32_t timestamp, const Bytes& payload) {
        get_connection(other_slot)->connection_in.push_back(make_packet(type, timestamp, payload));
    }

    // The client waits for the media before it sends more, so its earlier requests have been answered.
    void publish_media() {
        take_turns();
        receive_other(TYPE_AUDIO, 1000, aac_frame(1));
        receive_other(TYPE_VIDEO, 1000, avc_key_frame(2));
        receive_other(TYPE_VIDEO, 1000, avc_inter_frame(3));
        take_turns();
    }

    const Session& session;
    const std::vector<std::size_t>& segment_ends;
    const MainLoop main_loop;
    Replay result;
    std::size_t position = 0;
    std::size_t segments_read = 0;
    std::size_t client_slot = 0;
    std::size_t other_slot = 0;
    bool reading = false;
    bool sending_acknowledgement = false;
};

Replaying* Replaying::current = nullptr;

}  // namespace

extern "C" {

ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags) {
    // Only reads that may wait are simulated here.
    EXPECT_EQ(fd, CLIENT_FD);
    EXPECT_EQ(flags, 0);
    return static_cast<ssize_t>(Replaying::current->receive(buffer, size));
}

ssize_t __wrap_send(int fd, const void* bytes, std::size_t size, int /*flags*/) {
    Replaying::current->send(fd, {static_cast<const char*>(bytes), size});
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int /*flags*/) {
    std::size_t size = 0;
    for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
        const iovec& piece = message->msg_iov[i];
        Replaying::current->send(fd, {static_cast<const char*>(piece.iov_base), piece.iov_len});
        size += piece.iov_len;
    }
    return static_cast<ssize_t>(size);
}

int __wrap_usleep(useconds_t /*duration_us*/) {
    Replaying::current->sleep();
    return 0;
}

}  // extern "C"

Replay replay(const Session& session, const std::vector<std::size_t>& segment_ends, MainLoop main_loop) {
    return Replaying(session, segment_ends, main_loop).run();
}

std::string replayed_handshake() {
    std::string s1(HANDSHAKE_BLOCK_BYTES, '\0');
    for (std::size_t i = HANDSHAKE_RANDOM_OFFSET; i < s1.size(); ++i) {
        s1[i] = static_cast<char>(random_number(static_cast<std::uint32_t>(i - HANDSHAKE_RANDOM_OFFSET)));
    }
    return s1;
}

// The real server over TCP: a session that arrives in pieces is served like one that arrives at once. Each
// piece is sent after the server has read the previous one, so TCP does not merge them.
//
// tests/segmentation/ cuts the same sessions at every byte; here the threads and the socket are real, and
// only some cuts are tested. The reader's acknowledgements and the main loop's replies may interleave in any
// order, so each kind is compared separately.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>

#include "tests/segmentation/session.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr useconds_t POLL_US = 100;
constexpr std::size_t MESSAGES_OFFSET = C2_OFFSET + HANDSHAKE_BLOCK_BYTES;
constexpr std::size_t SINGLE_BYTES = 300;        // connect and what follows it
constexpr std::uint32_t LAST_CHUNK_BYTES = 100;  // at most the chunk size at the end of every session

// What the server sent for a session.
struct Served {
    Bytes handshake;
    std::vector<std::uint32_t> acknowledgements;
    Bytes answers;  // with their headers
    Bytes relayed;  // to the player of the published stream
};

// Turns off delayed TCP acknowledgements, which would make each piece take 40 ms.
void acknowledge_segments_at_once() {
    ASSERT_EQ(std::system("ip route replace table local local 127.0.0.1 dev lo proto kernel scope host "
                          "src 127.0.0.1 quickack 1"),
              0);
}

std::uint16_t local_port(const RtmpClient& client) {
    const std::string address = client.local_address();
    return static_cast<std::uint16_t>(std::stoul(address.substr(address.rfind(':') + 1)));
}

// Returns how many bytes of this client the server has received but not read.
std::size_t unread_by_server(std::uint16_t client_port) {
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        std::string remote;
        std::string state;
        std::string queues;
        fields >> slot >> local >> remote >> state >> queues;
        if (local.ends_with(":078F") &&
            std::stoul(remote.substr(remote.find(':') + 1), nullptr, 16) == client_port) {
            return std::stoul(queues.substr(queues.find(':') + 1), nullptr, 16);
        }
    }
    throw TestFailure("the server has closed the connection of port " + std::to_string(client_port));
}

void wait_until_read(const RtmpClient& client, std::uint16_t port) {
    const TimePoint deadline = SteadyClock::now() + DEFAULT_WAIT;
    const auto on_the_way = [&client] {
        int bytes = 0;
        return ioctl(client.descriptor(), SIOCOUTQ, &bytes) != 0 || bytes != 0;
    };
    while (on_the_way() || unread_by_server(port) != 0) {
        if (SteadyClock::now() > deadline) {
            throw TestFailure("the server does not read on");
        }
        usleep(POLL_US);
    }
}

// Sends the bytes from this position to the end in segments that end at the given positions.
void send_segments(RtmpClient& client, const Session& session, std::size_t from, std::size_t to,
                   const std::vector<std::size_t>& ends) {
    const std::uint16_t port = local_port(client);
    const auto send_to = [&](std::size_t end) {
        client.send_bytes(std::string_view(session.bytes).substr(from, end - from));
        wait_until_read(client, port);
        from = end;
    };
    for (const std::size_t end : ends) {
        if (end > from && end < to) {
            send_to(end);
        }
    }
    send_to(to);
}

// Reads the messages up to the reply to a request sent after the session. Everything before has been handled
// by then, and has been acknowledged once a second such reply arrives.
void read_answers(RtmpClient& client, std::size_t session_bytes, Served& served) {
    const Bytes request = amf_string("releaseStream") + amf_number(1000) + amf_null();
    for (int trip = 0; trip < 2; ++trip) {
        client.send_bytes(chunked({.payload = request}, LAST_CHUNK_BYTES));
        for (;;) {
            const RtmpMessage message = client.read_any_message();
            if (message.type == MSG_ACKNOWLEDGEMENT) {
                const std::uint32_t bytes = get_be32(message.payload);
                if (bytes <= session_bytes) {
                    served.acknowledgements.push_back(bytes);
                }
            } else if (message.payload == amf_string("_result") + amf_number(1000) + amf_null()) {
                break;
            } else {
                served.answers += message.raw;
            }
        }
    }
}

// Publishes metadata and headers for a session that plays, and media once the session has joined.
class OtherSide {
  public:
    explicit OtherSide(const Session& session)
        : client(session.plays ? publishing_client(session.stream) : playing_client(session.stream)) {
        if (session.plays) {
            // Without a player the stream would be forgotten after 5 s without media.
            listener.emplace(playing_client(session.stream));
            client.send_metadata(amf_object({{"width", amf_number(320)}, {"height", amf_number(240)}}));
            client.send_audio(1000, aac_header());
            client.send_video(1000, avc_header());
        }
        (void)client.round_trip();
    }

    void publish() {
        client.send_audio(1000, aac_frame(1));
        client.send_video(1000, avc_key_frame(2));
        client.send_video(1000, avc_inter_frame(3));
        (void)client.round_trip();
    }

    Bytes received() {
        Bytes raw;
        for (const RtmpMessage& message : client.round_trip()) {
            raw += message.raw;
        }
        return raw;
    }

  private:
    RtmpClient client;
    std::optional<RtmpClient> listener;
};

// A new server each time, so that its random numbers are the same.
Served serve(Session session, const std::vector<std::size_t>& ends) {
    ServerProcess server;
    OtherSide other(session);
    RtmpClient client;
    Served served;
    send_segments(client, session, 0, C2_OFFSET, ends);
    served.handshake = client.read_bytes(C2_OFFSET + HANDSHAKE_BLOCK_BYTES);
    answer_handshake(session, std::string_view(served.handshake).substr(1, HANDSHAKE_BLOCK_BYTES));
    const std::size_t end = session.plays ? session.media_at : session.bytes.size();
    send_segments(client, session, C2_OFFSET, end, ends);
    if (session.plays) {
        // Media that arrives before the request to play would not be relayed.
        server.wait_for_line("Repeating publisher's onMeta to new client");
        other.publish();
    }
    read_answers(client, end, served);
    if (!session.plays) {
        served.relayed = other.received();
    }
    return served;
}

class segmentation : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override { acknowledge_segments_at_once(); }

    void expect_the_same_in(const std::vector<std::size_t>& ends) {
        const Served cut = serve(session, ends);
        EXPECT_EQ(cut.handshake, whole.handshake);
        EXPECT_EQ(cut.acknowledgements, whole.acknowledgements);
        EXPECT_EQ(cut.answers, whole.answers);
        EXPECT_EQ(cut.relayed, whole.relayed);
    }

    const Session session = session_named(GetParam());
    const Served whole = serve(session, {});
};

}  // namespace

TEST_P(segmentation, a_session_that_arrives_byte_by_byte_is_served_like_one_in_one_piece) {
    EXPECT_FALSE(whole.acknowledgements.empty());
    EXPECT_GT(whole.answers.size() + whole.relayed.size(), 1000U);
    std::vector<std::size_t> ends{1, 2, 3, C2_OFFSET - 1};
    for (std::size_t end = MESSAGES_OFFSET - 2; end < MESSAGES_OFFSET + SINGLE_BYTES; ++end) {
        ends.push_back(end);
    }
    expect_the_same_in(ends);
}

TEST_P(segmentation, a_session_in_two_pieces_is_served_like_one_in_one_piece) {
    // In the handshake, after it, and at some places in the messages.
    std::vector<std::size_t> places{1, C2_OFFSET + 700, MESSAGES_OFFSET};
    std::mt19937 random(1);
    for (int i = 0; i < 5; ++i) {
        places.push_back(MESSAGES_OFFSET + 1 + random() % (session.bytes.size() - MESSAGES_OFFSET - 1));
    }
    for (const std::size_t place : places) {
        SCOPED_TRACE("cut after byte " + std::to_string(place));
        expect_the_same_in({place});
    }
}

INSTANTIATE_TEST_SUITE_P(client, segmentation, testing::Values("publisher", "player", "hand_made"),
                         [](const testing::TestParamInfo<std::string>& client) { return client.param; });

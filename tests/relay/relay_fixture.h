// Publishers and players in the state that the commands leave, although no command was sent.
#pragma once

#include <string>
#include <utility>

#include "core/limits.h"
#include "relay/av_relay.h"
#include "relay/relayed_message.h"
#include "relay/stream_registry.h"
#include "rtmp/message_types.h"
#include "tests/support/connection_fixture.h"

inline const std::string AAC_HEADER{"\xAF\x00\x12\x10", 4};
inline const std::string AAC_FRAME{"\xAF\x01\x21", 3};
inline const std::string MP3_FRAME{"\x2F\x00\x21", 3};
inline const std::string AVC_HEADER{"\x17\x00\x01\x64", 4};
inline const std::string AVC_INTER_FRAME{"\x27\x01\x9A", 3};
inline const std::string H263_FRAME{"\x22\x00\x9A", 3};

// The outcome of relaying a message.
struct RelayOutcome {
    bool publisher_kept;
    std::string printed;
};

class RelayFixture : public ConnectionFixture {
  protected:
    // Adds the publisher in force, or a rival if the name already has a publisher.
    RTMPConnection& add_publisher(const std::string& name = "cam1") {
        RTMPConnection& conn = add_connection();
        conn.stream_mode = "publish";
        conn.stream_name = name;
        StreamRecord& record = find_or_insert_stream(name);
        if (record.publisher == NO_CONNECTION) {
            record.publisher = conn.conn_idx;
        }
        return conn;
    }

    RTMPConnection& add_player(const std::string& name = "cam1") {
        RTMPConnection& conn = add_connection();
        conn.stream_mode = "play";
        conn.stream_name = name;
        EXPECT_EQ(printed_by([&] { stream_subscribe_for_play(name, conn.conn_idx); }),
                  "Connection for play subscribed to '" + name + "'\n");
        return conn;
    }

    RelayOutcome relay(RTMPConnection& publisher, RTMP_Packet pkt) {
        RelayOutcome outcome{};
        outcome.printed = printed_by([&] {
            outcome.publisher_kept =
                relay_published_packet(publisher, pkt, find_or_insert_stream(publisher.stream_name));
        });
        return outcome;
    }

    RelayOutcome relay_audio(RTMPConnection& publisher, std::uint32_t timestamp, const std::string& payload) {
        return relay(publisher, make_packet(MESSAGE_AUDIO, timestamp, payload));
    }

    RelayOutcome relay_video(RTMPConnection& publisher, std::uint32_t timestamp, const std::string& payload) {
        return relay(publisher, make_packet(MESSAGE_VIDEO, timestamp, payload, 6));
    }
};

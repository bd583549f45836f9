// Clients as the main thread sees them: messages go in where the reader thread would put them, one pass of
// the main loop runs, and replies are taken where the writer thread would.
#pragma once

#include <string>
#include <utility>

#include "relay/stream_registry.h"
#include "rtmp/message_types.h"
#include "tests/support/amf_bytes.h"
#include "tests/support/connection_fixture.h"
#include "tests/support/expected_replies.h"

inline const std::string AAC_HEADER{"\xAF\x00\x12\x10", 4};
inline const std::string AAC_FRAME{"\xAF\x01\x21", 3};
inline const std::string MP3_FRAME{"\x2F\x00\x21", 3};
inline const std::string AVC_INTER_FRAME{"\x27\x01\x9A", 3};

inline Bytes connect_command(const Bytes& transaction_id, const Bytes& command_object) {
    return amf_string("connect") + transaction_id + command_object;
}

inline Bytes publish_command(const std::string& name, const std::string& type = "live") {
    return amf_string("publish") + amf_number(5) + amf_null() + amf_string(name) + amf_string(type);
}

inline Bytes play_command(const std::string& name) {
    return amf_string("play") + amf_number(4) + amf_null() + amf_string(name);
}

inline Bytes set_metadata(const Bytes& metadata) {
    return amf_string("@setDataFrame") + amf_string("onMetaData") + metadata;
}

// An object that cannot be sent to players because of its size.
inline const std::string LARGE_TEXT(100000, 'x');
inline Bytes too_large(AmfMembers members) {
    members.emplace_back("text", amf_long_string(LARGE_TEXT));
    return amf_object(members);
}

class AppFixture : public ConnectionFixture {
  protected:
    void receive(RTMPConnection& conn, RTMP_Packet pkt) { conn.connection_in.push_back(std::move(pkt)); }

    void receive_command(RTMPConnection& conn, const Bytes& payload) {
        receive(conn, make_packet(MESSAGE_AMF0_COMMAND, 0, payload, 3, 0));
    }

    void receive_audio(RTMPConnection& conn, std::uint32_t timestamp, const std::string& payload = AAC_FRAME,
                       std::uint32_t message_stream_id = 1) {
        receive(conn, make_packet(MESSAGE_AUDIO, timestamp, payload, 4, message_stream_id));
    }

    // Makes one pass over the connection and returns what it printed.
    std::string idle(RTMPConnection& conn) {
        return printed_by([&] { conn.idle(); });
    }

    std::string command(RTMPConnection& conn, const Bytes& payload) {
        receive_command(conn, payload);
        return idle(conn);
    }

    std::string data_message(RTMPConnection& conn, const Bytes& payload) {
        receive(conn, make_packet(MESSAGE_AMF0_DATA, 0, payload));
        return idle(conn);
    }

    std::string audio(RTMPConnection& conn, std::uint32_t timestamp, const std::string& payload = AAC_FRAME,
                      std::uint32_t message_stream_id = 1) {
        receive_audio(conn, timestamp, payload, message_stream_id);
        return idle(conn);
    }

    // A client that may publish and play.
    RTMPConnection& add_client() {
        RTMPConnection& conn = add_connection();
        conn.app_name = "ombrex-live";
        return conn;
    }

    RTMPConnection& add_publisher(const std::string& name = "cam1") {
        RTMPConnection& conn = add_client();
        command(conn, publish_command(name));
        EXPECT_EQ(take_queued(conn).size(), 1U);
        EXPECT_EQ(conn.stream_mode, "publish");
        return conn;
    }

    RTMPConnection& add_player(const std::string& name = "cam1") {
        RTMPConnection& conn = add_client();
        command(conn, play_command(name));
        EXPECT_GE(take_queued(conn).size(), 1U);
        EXPECT_EQ(conn.stream_mode, "play");
        return conn;
    }

    static StreamRecord& record(const std::string& name = "cam1") { return find_or_insert_stream(name); }
};

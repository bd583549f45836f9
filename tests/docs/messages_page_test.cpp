// The dumps that the page about the server's lines shows are those that the server prints.
#include <comm_socket_v4.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "amf/amf_dump.h"
#include "comm_socket/packet.h"
#include "rtmp/packet_dump.h"
#include "tests/support/page_example.h"

namespace {

// Returns the block of the page that is fenced with this word.
std::string example(const std::string& word) {
    const std::string fence = "```" + word;
    return page_block(source_text("docs/messages.md"), fence, fence);
}

AMF_Value text_value(const char* text) {
    AMF_Value value;
    value.set_string(text);
    return value;
}

}  // namespace

TEST(messages_page, shows_a_message_as_the_server_dumps_it) {
    constexpr std::array<unsigned char, 17> HEADER{0x17, 0x00, 0x00, 0x00, 0x00, 0x01, 0x64, 0x00, 0x1F,
                                                   0xFF, 0xE1, 0x00, 0x19, 0x67, 0x64, 0x00, 0x1F};
    RTMP_Packet pkt;
    pkt.chunk.stream_id = 4;
    pkt.chunk.timestamp = 40;
    pkt.chunk.message_length = HEADER.size();
    pkt.chunk.message_type_id = 9;
    pkt.chunk.message_stream_id = 1;
    ASSERT_TRUE(pkt.chunk.message.allocate(HEADER.size()));
    std::memcpy(pkt.chunk.message.data, HEADER.data(), HEADER.size());

    testing::internal::CaptureStderr();
    dump_packet(pkt);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), example("message"));
}

TEST(messages_page, shows_a_value_as_the_server_dumps_it) {
    AMF_Value metadata;
    metadata.type = AMF_Type::ECMAArray;
    metadata.member("width").set_number(1280);
    metadata.member("stereo").type = AMF_Type::Boolean;
    metadata.member("stereo").boolean = 1;
    metadata.member("nothing").set_null();
    metadata.member("encoder") = text_value("camera 1");
    metadata.member("app").type = AMF_Type::Object;

    testing::internal::CaptureStderr();
    AMF_DumpValue(metadata, "\t");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), example("value"));
}

TEST(messages_page, shows_a_control_packet_as_the_server_dumps_it) {
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = COMM_SOCKET_V4_REQUEST | COMM_SOCKET_V4_ASYNC;
    packet->request_id = 7;
    packet->content->text->command = "reload";
    packet->content->text->message = "now";
    packet->content->text->arguments = {"cam1", {}, "a \"quote\", a \\ and a tab \t"};
    packet->content->text->pairs = {{"depth", "2"}};

    testing::internal::CaptureStderr();
    comm_socket_v4_packet_dump_user_friendly(packet, stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), example("control"));
    comm_socket_v4_packet_release(packet);
}

#include "app/reply.h"

#include <malloc.h>

#include <string>
#include <vector>

#include "tests/app/app_fixture.h"

namespace {

// Marker and length of a string.
constexpr std::size_t STRING_OVERHEAD = 3;

class reply_test : public AppFixture {
  protected:
    static bool queue(RTMPConnection& conn, const AMF_Value& value) {
        const ConnectionLock lock(conn);
        return queue_reply(conn, make_packet(MESSAGE_AMF0_COMMAND, 4711, "request", 70, 9), {&value});
    }
};

}  // namespace

TEST_F(reply_test, values_are_encoded_one_after_another) {
    const AMF_Value name = string_value("_result");
    const AMF_Value number = number_value(-2.5);
    const AMF_Value null = null_value();
    RTMP_Packet pkt;
    EXPECT_TRUE(encode_values({&name, &number, &null}, pkt.chunk.message));
    EXPECT_EQ(payload_of(pkt), amf_string("_result") + amf_number(-2.5) + amf_null());
}

TEST_F(reply_test, the_buffer_of_a_message_has_the_size_of_what_was_encoded) {
    const AMF_Value null = null_value();
    RTMP_Packet pkt;
    EXPECT_TRUE(encode_values({&null}, pkt.chunk.message));
    EXPECT_EQ(pkt.chunk.message.data_length, 1U);
    EXPECT_LT(malloc_usable_size(pkt.chunk.message.data), 64U);
}

TEST_F(reply_test, a_message_of_65536_bytes_is_encoded_and_a_longer_one_is_not) {
    constexpr std::size_t LONGEST = MAX_ENCODED_BYTES - STRING_OVERHEAD;
    AMF_Value value;
    value.set_string(std::string(LONGEST, 'x'));
    RTMP_Packet pkt;
    EXPECT_TRUE(encode_values({&value}, pkt.chunk.message));
    EXPECT_EQ(pkt.chunk.message.data_length, 65536U);
    EXPECT_EQ(payload_of(pkt), amf_string(std::string(LONGEST, 'x')));

    const AMF_Value null = null_value();
    EXPECT_FALSE(encode_values({&value, &null}, pkt.chunk.message));
    AMF_Value longer;
    longer.set_string(std::string(LONGEST + 1, 'x'));
    EXPECT_FALSE(encode_values({&longer}, pkt.chunk.message));
    AMF_Value long_string;
    long_string.set_string(std::string(65536, 'x'));
    EXPECT_FALSE(encode_values({&long_string}, pkt.chunk.message));
}

TEST_F(reply_test, a_reply_has_the_header_of_the_request_and_is_queued_after_others) {
    RTMPConnection& conn = add_connection();
    EXPECT_TRUE(queue(conn, null_value()));
    EXPECT_TRUE(queue(conn, number_value(7)));
    EXPECT_EQ(conn.connection_out.front().chunk.message_length, 7U);
    EXPECT_EQ(take_queued(conn),
              (std::vector<QueuedMessage>{{MESSAGE_AMF0_COMMAND, 4711, amf_null(), 70, 9},
                                          {MESSAGE_AMF0_COMMAND, 4711, amf_number(7), 70, 9}}));
}

TEST_F(reply_test, a_reply_that_cannot_be_encoded_is_not_queued) {
    RTMPConnection& conn = add_connection();
    AMF_Value too_long;
    too_long.set_string(std::string(MAX_ENCODED_BYTES, 'x'));
    EXPECT_FALSE(queue(conn, too_long));
    for (const AMF_Type type : {AMF_Type::ObjectEnd, AMF_Type::StrictArray, AMF_Type::Date}) {
        AMF_Value value;
        value.type = type;
        EXPECT_FALSE(queue(conn, value));
    }
    EXPECT_TRUE(conn.connection_out.empty());
}

TEST_F(reply_test, a_status_has_three_properties_in_key_order) {
    RTMPConnection& conn = add_connection();
    {
        const ConnectionLock lock(conn);
        EXPECT_TRUE(queue_on_status(conn, make_packet(MESSAGE_AMF0_COMMAND, 0, "", 3, 0), number_value(5),
                                    "NetStream.Publish.Start", "publishing started"));
    }
    EXPECT_EQ(take_queued(conn),
              (std::vector<QueuedMessage>{{MESSAGE_AMF0_COMMAND, 0, publish_status(amf_number(5)), 3, 0}}));
}

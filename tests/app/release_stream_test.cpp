// releaseStream, FCPublish and FCUnpublish.
#include <string>
#include <vector>

#include "tests/app/app_fixture.h"

namespace {

using Messages = std::vector<QueuedMessage>;

class release_stream_test : public AppFixture {};

}  // namespace

TEST_F(release_stream_test, answers_with_the_transaction_id_under_the_requests_header_and_changes_nothing) {
    for (const char* const name : {"releaseStream", "FCPublish", "FCUnpublish"}) {
        RTMPConnection& conn = add_connection();
        receive(conn, make_packet(MESSAGE_AMF0_COMMAND, 4711,
                                  amf_string(name) + amf_number(2) + amf_null() + amf_string("cam1"), 70, 9));
        EXPECT_EQ(idle(conn), "") << name;
        EXPECT_EQ(take_queued(conn),
                  (Messages{{MESSAGE_AMF0_COMMAND, 4711, plain_result(amf_number(2)), 70, 9}}));
        EXPECT_EQ(conn.stream_mode, "");
        EXPECT_EQ(conn.stream_name, "");
        EXPECT_EQ(stream_count(), 0U);
        EXPECT_FALSE(conn.close_requested);
    }
}

TEST_F(release_stream_test, echoes_a_transaction_id_of_any_type) {
    for (const Bytes& id : {amf_number(-0.5), amf_boolean(2), amf_string("seven"), amf_string(""), amf_null(),
                            amf_undefined(), amf_object({{"a", amf_number(1)}}),
                            amf_ecma_array(1, {{"a", amf_null()}}), amf_xml_document("<a/>")}) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, amf_string("FCPublish") + id + amf_null()), "") << to_hex(id);
        EXPECT_EQ(take_queued(conn), (Messages{{MESSAGE_AMF0_COMMAND, 0, plain_result(id), 3, 0}}));
    }
}

TEST_F(release_stream_test, ignores_everything_after_its_arguments) {
    RTMPConnection& conn = add_connection();
    EXPECT_EQ(command(conn, amf_string("FCPublish") + amf_number(2) + amf_null() + bytes_of({0x0A})), "");
    EXPECT_EQ(take_queued(conn).size(), 1U);
}

TEST_F(release_stream_test, silently_refuses_missing_malformed_and_unanswerable_arguments) {
    for (const Bytes& arguments : std::vector<Bytes>{
             "", amf_number(2), amf_number(2).substr(0, 8), bytes_of({0x0A}),
             amf_number(2) + bytes_of({0x0A}), amf_number(2) + amf_string("cut").substr(0, 4),
             bytes_of({AMF_OBJECT_END}) + amf_null(),  // It decodes, but cannot be encoded in a reply.
         }) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, amf_string("FCPublish") + arguments), "AMF0 error command\n")
            << to_hex(arguments);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_out.empty());
    }
}

TEST_F(release_stream_test, refuses_a_transaction_id_that_makes_the_reply_too_long) {
    // Besides the text: 10 bytes of "_result", marker and length of the id, and 1 byte of null.
    constexpr std::size_t LONGEST_ID = 65536 - 10 - 3 - 1;
    RTMPConnection& conn = add_connection();
    const Bytes longest = amf_string(std::string(LONGEST_ID, 'x'));
    EXPECT_EQ(command(conn, amf_string("FCPublish") + longest + amf_null()), "");
    const Messages replies = take_queued(conn);
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(replies[0].payload.size(), 65536U);
    EXPECT_EQ(replies[0].payload, plain_result(longest));

    const Bytes too_long = amf_string(std::string(LONGEST_ID + 1, 'x'));
    EXPECT_EQ(command(conn, amf_string("FCPublish") + too_long + amf_null()), "AMF0 error command\n");
    EXPECT_TRUE(conn.connection_out.empty());
    EXPECT_TRUE(conn.close_requested);
}

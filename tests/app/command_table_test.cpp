#include "app/command_table.h"

#include <string>
#include <vector>

#include "tests/app/app_fixture.h"

namespace {

class command_table_test : public AppFixture {};

}  // namespace

TEST_F(command_table_test, get_stream_length_is_known_and_not_answered) {
    RTMPConnection& conn = add_connection();
    EXPECT_EQ(command(conn, amf_string("getStreamLength") + amf_number(3) + amf_null() + amf_string("cam1")),
              "");
    EXPECT_EQ(command(conn, amf_string("getStreamLength")), "");
    EXPECT_TRUE(conn.connection_out.empty());
    EXPECT_TRUE(conn.connection_in.empty());
    EXPECT_FALSE(conn.close_requested);
}

TEST_F(command_table_test, delete_stream_drops_the_connection_with_two_lines) {
    RTMPConnection& conn = add_connection();
    EXPECT_EQ(command(conn, amf_string("deleteStream")),
              "deleteStream, drop connection\nAMF0 error command\n");
    EXPECT_TRUE(conn.close_requested);
    EXPECT_TRUE(conn.connection_out.empty());
}

TEST_F(command_table_test, unknown_commands_are_named_and_end_the_connection) {
    struct Case {
        Bytes payload;
        std::string name;
    };
    for (const Case& row : std::vector<Case>{
             {amf_string("x"), "x"},
             {amf_string("_checkbw") + amf_number(2) + amf_null(), "_checkbw"},
             {amf_string("Connect") + amf_number(1), "Connect"},
             {amf_string("connect ") + amf_number(1), "connect "},
             {amf_string(std::string("play\0x", 6)), "play"},
             {amf_string("50%s%n"), "50%s%n"},
             {amf_string(""), ""},
             {amf_null(), ""},
             {amf_number(7), ""},
             {amf_boolean(1), ""},
             {amf_object({{"connect", amf_string("connect")}}), ""},
             {amf_string(std::string(65535, 'x')), std::string(65535, 'x')},
         }) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, row.payload), "Unknown command '" + row.name + "'\nAMF0 error command\n");
        EXPECT_TRUE(conn.close_requested) << row.name;
        EXPECT_TRUE(conn.connection_out.empty()) << row.name;
    }
}

TEST_F(command_table_test, a_name_may_be_any_kind_of_string) {
    for (const Bytes& name : {amf_long_string("deleteStream"), amf_xml_document("deleteStream")}) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, name), "deleteStream, drop connection\nAMF0 error command\n");
    }
}

TEST_F(command_table_test, every_command_needs_its_arguments) {
    for (const char* const name :
         {"connect", "play", "releaseStream", "FCPublish", "createStream", "publish", "FCUnpublish"}) {
        RTMPConnection& conn = add_client();
        EXPECT_EQ(command(conn, amf_string(name)), "AMF0 error command\n") << name;
        EXPECT_TRUE(conn.close_requested) << name;
        EXPECT_TRUE(conn.connection_out.empty()) << name;
    }
}

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/app/app_fixture.h"
#include "tests/app/scripted_rand.h"

namespace {

using Messages = std::vector<QueuedMessage>;

constexpr const char* DUMP_OF_LIVE =
    "\tAMF var Object\n"
    "\t  Object: {\n"
    "\t    'app':\n"
    "\t      AMF var String\n"
    "\t        Value: 'ombrex-live'\n"
    "\t  }\n";

Bytes app_object(const std::string& name) {
    return amf_object({{"app", amf_string(name)}});
}

class connect_test : public AppFixture {
  protected:
    ~connect_test() override { EXPECT_TRUE(scripted_draws.empty()) << "rand() was called too seldom"; }

    void SetUp() override { scripted_draws.clear(); }
};

}  // namespace

TEST_F(connect_test, accepts_the_client_and_answers_with_the_servers_properties_in_key_order) {
    RTMPConnection& conn = add_connection();
    scripted_draws = {1804289383, 846930886};
    receive(conn, make_packet(MESSAGE_AMF0_COMMAND, 17,
                              connect_command(amf_number(1), app_object("ombrex-live")), 70, 9));
    EXPECT_EQ(idle(conn), std::string(DUMP_OF_LIVE) + "accepted app ombrex-live\n");
    constexpr std::uint32_t CLIENT_ID = 1804289383U * 846930886U;
    EXPECT_EQ(take_queued(conn),
              (Messages{{MESSAGE_AMF0_COMMAND, 17, connect_reply(amf_number(1), CLIENT_ID), 70, 9}}));
    EXPECT_EQ(conn.client_id, CLIENT_ID);
    EXPECT_EQ(conn.app_name, "ombrex-live");
    EXPECT_FALSE(conn.close_requested);
}

TEST_F(connect_test, sends_a_client_id_above_31_bits_as_a_positive_number) {
    RTMPConnection& conn = add_connection();
    scripted_draws = {0x7FFFFFFF, 3};
    command(conn, connect_command(amf_number(1), app_object("ombrex-live")));
    EXPECT_EQ(conn.client_id, 0x7FFFFFFDU);
    scripted_draws = {0x7FFFFFFF, 2};
    command(conn, connect_command(amf_number(1), app_object("ombrex-live")));
    EXPECT_EQ(conn.client_id, 0xFFFFFFFEU);
    EXPECT_EQ(take_queued(conn).back().payload, connect_reply(amf_number(1), 0xFFFFFFFE));
}

TEST_F(connect_test, accepts_two_applications_with_at_most_one_trailing_slash) {
    struct Case {
        Bytes command_object;
        std::string app_name;
    };
    for (const Case& row : std::vector<Case>{
             {app_object("ombrex-live"), "ombrex-live"},
             {app_object("ombrex-live/"), "ombrex-live"},
             {app_object("ombrex-output"), "ombrex-output"},
             {app_object("ombrex-output/"), "ombrex-output"},
             {amf_object({{"app", amf_long_string("ombrex-live")}}), "ombrex-live"},
             {amf_object({{"app", amf_xml_document("ombrex-live")}}), "ombrex-live"},
             {amf_ecma_array(1, {{"app", amf_string("ombrex-live")}}), "ombrex-live"},
             {amf_object({{"app", amf_string("x")}, {"app", amf_string("ombrex-live")}}), "ombrex-live"},
         }) {
        RTMPConnection& conn = add_connection();
        scripted_draws = {1, 1};
        EXPECT_TRUE(command(conn, connect_command(amf_number(1), row.command_object))
                        .ends_with("\naccepted app " + row.app_name + "\n"))
            << to_hex(row.command_object);
        EXPECT_EQ(conn.app_name, row.app_name);
        EXPECT_EQ(take_queued(conn).size(), 1U);
    }
}

TEST_F(connect_test, rejects_every_other_application_after_drawing_a_client_id) {
    struct Case {
        Bytes command_object;
        std::string printed_name;
    };
    for (const Case& row : std::vector<Case>{
             {app_object("ombrex-live//"), "ombrex-live/"},
             {app_object("Ombrex-Live"), "Ombrex-Live"},
             {app_object("ombrex-live/a"), "ombrex-live/a"},
             {app_object("/ombrex-live"), "/ombrex-live"},
             {app_object("ombrex-liv"), "ombrex-liv"},
             {app_object("x"), "x"},
             {app_object("/"), ""},
             {app_object(""), ""},
             {app_object(std::string("ombrex-live\0x", 13)), "ombrex-live"},
             {amf_object({{"app", amf_number(1)}}), ""},
             {amf_object({{"App", amf_string("ombrex-live")}}), ""},
             {amf_object({}), ""},
             {bytes_of({AMF_OBJECT}), ""},
             {bytes_of({AMF_OBJECT_END}), ""},
             {amf_null(), ""},
             {amf_string("ombrex-live"), ""},
         }) {
        RTMPConnection& conn = add_connection();
        scripted_draws = {7, 3};
        const std::string printed = command(conn, connect_command(amf_number(1), row.command_object));
        EXPECT_TRUE(printed.starts_with("\tAMF var ")) << printed;
        EXPECT_TRUE(printed.ends_with("\nrejected app " + row.printed_name + "\nAMF0 error command\n"))
            << printed;
        EXPECT_EQ(conn.client_id, 21U);
        EXPECT_EQ(conn.app_name, "");
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_out.empty());
    }
}

TEST_F(connect_test, echoes_a_boolean_transaction_id_unchanged) {
    for (const int byte : {1, 2, 255}) {
        RTMPConnection& conn = add_connection();
        scripted_draws = {1, 1};
        command(conn, connect_command(amf_boolean(byte), app_object("ombrex-live")));
        EXPECT_EQ(take_queued(conn),
                  (Messages{{MESSAGE_AMF0_COMMAND, 0, connect_reply(amf_boolean(byte), 1), 3, 0}}));
    }
}

TEST_F(connect_test, fails_silently_when_it_is_not_transaction_1) {
    for (const Bytes& id :
         {amf_number(2), amf_number(1.5), amf_number(0), amf_number(-1),
          amf_number(std::numeric_limits<double>::quiet_NaN()), amf_number(std::nextafter(1.0, 2.0)),
          amf_boolean(0), amf_string("1"), amf_null(), amf_undefined(), amf_object({})}) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, connect_command(id, app_object("ombrex-live"))), "AMF0 error command\n")
            << to_hex(id);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_out.empty());
    }
}

TEST_F(connect_test, fails_silently_when_an_argument_is_missing_or_malformed) {
    for (const Bytes& arguments : std::vector<Bytes>{
             "",
             amf_number(1),
             amf_number(1).substr(0, 8),
             amf_number(1) + bytes_of({0x0A}),
             amf_number(1) + amf_string("cut").substr(0, 5),
         }) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, amf_string("connect") + arguments), "AMF0 error command\n")
            << to_hex(arguments);
        EXPECT_TRUE(conn.close_requested);
    }
}

TEST_F(connect_test, ignores_one_more_well_formed_argument_and_everything_after_it) {
    RTMPConnection& conn = add_connection();
    const Bytes request = connect_command(amf_number(1), app_object("ombrex-live"));
    scripted_draws = {1, 1};
    EXPECT_EQ(command(conn, request + amf_string("secret")),
              std::string(DUMP_OF_LIVE) + "accepted app ombrex-live\n");
    scripted_draws = {1, 1};
    EXPECT_EQ(command(conn, request + amf_null() + bytes_of({0x0A})),
              std::string(DUMP_OF_LIVE) + "accepted app ombrex-live\n");
    EXPECT_EQ(command(conn, request + bytes_of({0x0A})), std::string(DUMP_OF_LIVE) + "AMF0 error command\n");
    EXPECT_EQ(take_queued(conn).size(), 2U);
}

TEST_F(connect_test, may_be_repeated_with_another_application) {
    RTMPConnection& conn = add_connection();
    scripted_draws = {1, 2};
    command(conn, connect_command(amf_number(1), app_object("ombrex-live")));
    scripted_draws = {3, 4};
    command(conn, connect_command(amf_number(1), app_object("ombrex-output")));
    EXPECT_EQ(conn.app_name, "ombrex-output");
    EXPECT_EQ(take_queued(conn),
              (Messages{{MESSAGE_AMF0_COMMAND, 0, connect_reply(amf_number(1), 2), 3, 0},
                        {MESSAGE_AMF0_COMMAND, 0, connect_reply(amf_number(1), 12), 3, 0}}));
    EXPECT_FALSE(conn.close_requested);
}

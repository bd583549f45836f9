// The AMF0 values that the server accepts, shown by the dump of a connect's command object, and its handling
// of those it rejects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/support/dropped_client.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using Lines = std::vector<std::string>;

// Returns what the server prints about a connect with this command object, up to the refusal of the
// empty application.
Lines dump_of(const ServerProcess& server, const Bytes& command_object) {
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_command(amf_string("connect") + amf_number(1) + command_object);
    Lines lines = server.lines_through("rejected app ", mark);
    lines.pop_back();
    server.wait_for_line("Disposing old stream ''", mark);
    return lines;
}

Lines object_lines(const Lines& members) {
    Lines lines = {"\tAMF var Object", "\t  Object: {"};
    lines.insert(lines.end(), members.begin(), members.end());
    lines.emplace_back("\t  }");
    return lines;
}

const Lines DROP = {"AMF0 error command", "Dropping connection", "Disposing old stream ''"};

}  // namespace

TEST(amf_on_the_wire, every_kind_of_value_is_shown_by_its_name) {
    ServerProcess server;
    const Bytes object = amf_object({
        {"1", amf_number(1)},
        {"2", amf_boolean(1)},
        {"3", amf_boolean(0)},
        {"4", amf_boolean(2)},
        {"5", amf_string("text")},
        {"6", amf_null()},
        {"7", amf_undefined()},
        {"8", amf_long_string("long")},
        {"9", amf_xml_document("<a/>")},
        {"A", bytes_of({AMF_OBJECT_END})},
        {"B", amf_object({})},
        {"C", amf_ecma_array(0, {})},
    });
    EXPECT_EQ(dump_of(server, object), object_lines({
                                           "\t    '1':",
                                           "\t      AMF var Number",
                                           "\t        Value: 1.000",
                                           "\t    '2':",
                                           "\t      AMF var Boolean",
                                           "\t        Value: true",
                                           "\t    '3':",
                                           "\t      AMF var Boolean",
                                           "\t        Value: false",
                                           "\t    '4':",
                                           "\t      AMF var Boolean",
                                           "\t        Value: true",
                                           "\t    '5':",
                                           "\t      AMF var String",
                                           "\t        Value: 'text'",
                                           "\t    '6':",
                                           "\t      AMF var Null",
                                           "\t    '7':",
                                           "\t      AMF var Undefined",
                                           "\t    '8':",
                                           "\t      AMF var LongString",
                                           "\t        Value: 'long'",
                                           "\t    '9':",
                                           "\t      AMF var XMLDocument",
                                           "\t        Value: '<a/>'",
                                           "\t    'A':",
                                           "\t      AMF var ObjectEnd",
                                           "\t    'B':",
                                           "\t      AMF var Object",
                                           "\t        Object: {",
                                           "\t        }",
                                           "\t    'C':",
                                           "\t      AMF var ECMAArray",
                                           "\t        Object: {",
                                           "\t        }",
                                       }));
}

TEST(amf_on_the_wire, numbers_are_shown_with_three_decimals) {
    ServerProcess server;
    struct Row {
        double value;
        std::string shown;
    };
    const std::vector<Row> rows = {{0, "0.000"},
                                   {-0.0, "-0.000"},
                                   {1.0005, "1.000"},
                                   {-2.5, "-2.500"},
                                   {1e15, "1000000000000000.000"},
                                   {INFINITY, "inf"},
                                   {-INFINITY, "-inf"},
                                   {std::nan(""), "nan"}};
    for (const Row& row : rows) {
        EXPECT_EQ(dump_of(server, amf_number(row.value)),
                  (Lines{"\tAMF var Number", "\t  Value: " + row.shown}));
    }
}

TEST(amf_on_the_wire, members_are_shown_in_the_order_of_their_bytes) {
    ServerProcess server;
    const Bytes object = bytes_of({AMF_OBJECT}) +
                         amf_members({{"ab", amf_null()},
                                      {"a", amf_null()},
                                      {"\xE9", amf_null()},
                                      {"", amf_null()},
                                      {"B", amf_null()}}) +
                         amf_end();
    EXPECT_EQ(dump_of(server, object),
              object_lines({"\t    '':", "\t      AMF var Null", "\t    'B':", "\t      AMF var Null",
                            "\t    'a':", "\t      AMF var Null", "\t    'ab':", "\t      AMF var Null",
                            "\t    '\xE9':", "\t      AMF var Null"}));
}

TEST(amf_on_the_wire, the_last_of_two_members_of_one_name_wins) {
    ServerProcess server;
    EXPECT_EQ(dump_of(server, amf_object({{"x", amf_number(1)}, {"x", amf_number(2)}})),
              object_lines({"\t    'x':", "\t      AMF var Number", "\t        Value: 2.000"}));
}

TEST(amf_on_the_wire, nested_objects_are_indented_by_six) {
    ServerProcess server;
    EXPECT_EQ(
        dump_of(server, amf_object({{"a", amf_object({{"b", amf_ecma_array(1, {{"c", amf_null()}})}})}})),
        object_lines({
            "\t    'a':",
            "\t      AMF var Object",
            "\t        Object: {",
            "\t          'b':",
            "\t            AMF var ECMAArray",
            "\t              Object: {",
            "\t                'c':",
            "\t                  AMF var Null",
            "\t              }",
            "\t        }",
        }));
}

TEST(amf_on_the_wire, a_text_is_shown_up_to_its_first_zero_byte) {
    ServerProcess server;
    EXPECT_EQ(dump_of(server, amf_object({{std::string("k\0l", 3), amf_string(std::string("a\0b", 3))}})),
              object_lines({"\t    'k':", "\t      AMF var String", "\t        Value: 'a'"}));
}

TEST(amf_on_the_wire, the_end_of_the_message_ends_an_object) {
    ServerProcess server;
    EXPECT_EQ(dump_of(server, from_hex("03")), object_lines({}));
    EXPECT_EQ(dump_of(server, from_hex("03 0001 61 05")),
              object_lines({"\t    'a':", "\t      AMF var Null"}));
    EXPECT_EQ(dump_of(server, from_hex("03 0001 61 03 0001 62 05")),
              object_lines({"\t    'a':", "\t      AMF var Object", "\t        Object: {",
                            "\t          'b':", "\t            AMF var Null", "\t        }"}));
}

TEST(amf_on_the_wire, the_end_of_the_message_ends_an_array_whose_count_is_right) {
    ServerProcess server;
    EXPECT_EQ(dump_of(server, bytes_of({AMF_ECMA_ARRAY}) + be32(2) +
                                  amf_members({{"a", amf_null()}, {"b", amf_null()}})),
              (Lines{"\tAMF var ECMAArray", "\t  Object: {", "\t    'a':", "\t      AMF var Null",
                     "\t    'b':", "\t      AMF var Null", "\t  }"}));
    EXPECT_EQ(dump_of(server, from_hex("08 00000000")),
              (Lines{"\tAMF var ECMAArray", "\t  Object: {", "\t  }"}));
}

TEST(amf_on_the_wire, a_repeated_member_counts_in_an_array) {
    ServerProcess server;
    EXPECT_EQ(dump_of(server, amf_ecma_array(2, {{"a", amf_number(1)}, {"a", amf_null()}})),
              (Lines{"\tAMF var ECMAArray", "\t  Object: {", "\t    'a':", "\t      AMF var Null", "\t  }"}));
}

TEST(amf_on_the_wire, an_end_mark_alone_is_a_value) {
    ServerProcess server;
    EXPECT_EQ(dump_of(server, from_hex("09")), (Lines{"\tAMF var ObjectEnd"}));
}

TEST(amf_on_the_wire, markers_that_are_not_supported_drop_the_client) {
    ServerProcess server;
    for (const int marker : {0x04, 0x07, 0x0A, 0x0B, 0x0D, 0x0E, 0x10, 0x11, 0xFF}) {
        const Bytes value = bytes_of({marker}) + Bytes(16, '\0');
        EXPECT_EQ(lines_of_failure(server, value), DROP) << "as command name, marker " << marker;
        EXPECT_EQ(lines_of_failure(server, amf_string("connect") + amf_number(1) + value), DROP)
            << "as command object, marker " << marker;
        EXPECT_EQ(
            lines_of_failure(server, amf_string("connect") + amf_number(1) + amf_object({{"a", value}})),
            DROP)
            << "as member, marker " << marker;
    }
}

TEST(amf_on_the_wire, values_that_are_cut_short_drop_the_client) {
    ServerProcess server;
    const std::vector<Bytes> rows = {
        from_hex("00"),
        from_hex("00 3FF00000000000"),  // a number of 7 bytes
        from_hex("01"),
        from_hex("02"),
        from_hex("02 00"),
        from_hex("02 0005 61626364"),  // 4 bytes of 5
        from_hex("0C 000000"),
        from_hex("0C 00000002 61"),
        from_hex("0C 00100001 61"),  // longer than a long string may be
        from_hex("0C FFFFFFFF 61"),
        from_hex("0F 00000002 61"),
        from_hex("03 00"),
        from_hex("03 0001 61"),  // a key without a value
        from_hex("03 0000"),
        from_hex("03 0001 61 03 0001 62"),
        from_hex("08 000000"),
    };
    for (const Bytes& value : rows) {
        EXPECT_EQ(lines_of_failure(server, amf_string("connect") + amf_number(1) + value), DROP)
            << to_hex(value);
        EXPECT_EQ(lines_of_failure(server, value), DROP) << to_hex(value);
    }
}

TEST(amf_on_the_wire, an_array_with_a_wrong_count_is_reported_and_drops_the_client) {
    ServerProcess server;
    const Lines too_short = {"AMF0 error ECMA array too short vs count", DROP[0], DROP[1], DROP[2]};
    const Lines too_long = {"AMF0 error ECMA array too long vs count", DROP[0], DROP[1], DROP[2]};
    EXPECT_EQ(lines_of_failure(server, from_hex("08 00000001 0000 09")), too_short);
    EXPECT_EQ(lines_of_failure(server, from_hex("08 00000001")), too_short);
    EXPECT_EQ(lines_of_failure(server, from_hex("08 00000002 0001 61 05")), too_short);
    EXPECT_EQ(lines_of_failure(server, from_hex("08 FFFFFFFF 0001 61 05 0000 09")), too_short);
    EXPECT_EQ(lines_of_failure(server, from_hex("08 00000000 0001 61 05")), too_long);
    EXPECT_EQ(lines_of_failure(server, amf_ecma_array(1, {{"a", amf_null()}, {"a", amf_null()}})), too_long);
    EXPECT_EQ(lines_of_failure(
                  server, amf_string("connect") + amf_number(1) + amf_object({{"a", amf_ecma_array(5, {})}})),
              too_short);
}

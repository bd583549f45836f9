#include "tools/v9_rtmp_ctl/json_forms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

Connection full_connection() {
    Connection connection =
        *parse_connection_line("5\tcam1\tpublish\t1280x720\t1000\t18446744073709551615\t10.0.0.1:5000");
    connection.sent_rate = 12.5;
    connection.received_rate = 1e6;
    return connection;
}

}  // namespace

TEST(reply_json, is_one_line_in_a_fixed_form) {
    EXPECT_EQ(reply_json({0, "hello", "How are you?", {}}),
              R"({"status": 0, "command": "hello", "message": "How are you?", "pairs": []})");
    EXPECT_EQ(
        reply_json({6, "x", "Unknown command", {{"b", "1"}, {"a", "2"}, {"b", ""}}}),
        R"({"status": 6, "command": "x", "message": "Unknown command", "pairs": [["b","1"], ["a","2"], ["b",""]]})");
}

TEST(reply_json, a_status_of_64_bits_is_whole) {
    EXPECT_EQ(reply_json({18446744073709551615U, "", "", {}}),
              R"({"status": 18446744073709551615, "command": "", "message": "", "pairs": []})");
}

TEST(reply_json, bytes_that_are_not_utf8_become_the_replacement_character) {
    EXPECT_EQ(
        reply_json({0, "a\xff", "\xc3\xa4\xc3", {{"\x80", "ok\xf0\x9f"}}}),
        "{\"status\": 0, \"command\": \"a\xef\xbf\xbd\", \"message\": \"\xc3\xa4\xef\xbf\xbd\", \"pairs\": "
        "[[\"\xef\xbf\xbd\",\"ok\xef\xbf\xbd\"]]}");
}

TEST(reply_json, control_bytes_quotes_and_zeros_are_escaped) {
    EXPECT_EQ(reply_json({0, "a\tb\nc\"\\", std::string("x\0y\x1b", 4), {}}),
              R"({"status": 0, "command": "a\tb\nc\"\\", "message": "x\u0000y\u001b", "pairs": []})");
}

TEST(reply_json, terminal_control_characters_are_escaped_and_other_text_is_unchanged) {
    EXPECT_EQ(reply_json({0, "\x7f", "\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0\xc3\x9b", {}}),
              "{\"status\": 0, \"command\": \"\\u007f\", \"message\": "
              "\"\\u0080\\u009b\\u009f\xc2\xa0\xc3\x9b\", \"pairs\": []}");
}

TEST(list_json, numbers_are_numbers) {
    EXPECT_EQ(
        list_json({full_connection()}),
        R"({"slots":128,"connections":[{"id":5,"stream":"cam1","mode":"publish","width":1280,"height":720,)"
        R"("bytes_sent":1000,"bytes_received":18446744073709551615,"bytes_sent_per_second":13,)"
        R"("bytes_received_per_second":1000000,"address":"10.0.0.1:5000"}]})");
}

TEST(list_json, absent_values_are_null) {
    EXPECT_EQ(list_json({Connection()}),
              R"({"slots":128,"connections":[{"id":0,"stream":null,"mode":null,"width":null,"height":null,)"
              R"("bytes_sent":null,"bytes_received":null,"bytes_sent_per_second":null,)"
              R"("bytes_received_per_second":null,"address":null}]})");
    EXPECT_EQ(list_json({}), R"({"slots":128,"connections":[]})");
}

TEST(streams_json, has_one_object_for_each_stream) {
    StreamSummary summary;
    summary.stream = "cam1";
    summary.publisher_id = 3;
    summary.publisher_address = "10.0.0.1:5000";
    summary.size = VideoSize{640, 360};
    summary.players = 2;
    summary.in_rate = 1000.4;
    summary.out_rate = 2000;
    summary.rivals = {7, 9};
    summary.publisher_is_guess = true;
    EXPECT_EQ(
        streams_json({summary}),
        R"({"streams":[{"stream":"cam1","publisher":3,"publisher_address":"10.0.0.1:5000",)"
        R"("publisher_is_guess":true,"players":2,)"
        R"("width":640,"height":360,"bytes_in_per_second":1000,"bytes_out_per_second":2000,"rivals":[7,9]}]})");
    StreamSummary waiting;
    waiting.stream = "w\xff";
    EXPECT_EQ(streams_json({waiting}),
              "{\"streams\":[{\"stream\":\"w\xef\xbf\xbd\",\"publisher\":null,\"publisher_address\":null,"
              "\"publisher_is_guess\":false,"
              "\"players\":0,"
              "\"width\":null,\"height\":null,\"bytes_in_per_second\":null,\"bytes_out_per_second\":null,"
              "\"rivals\":[]}]}");
    EXPECT_EQ(streams_json({}), R"({"streams":[]})");
    EXPECT_THAT(streams_json({summary}, RateUnit::BITS),
                testing::HasSubstr(R"("bits_in_per_second":8003,"bits_out_per_second":16000)"));
}

TEST(watch_json, says_whether_the_server_runs) {
    EXPECT_EQ(watch_json(false, {}, {}), R"({"running":false,"slots":128,"streams":[],"connections":[]})");
}

TEST(other_json, reports_what_was_done) {
    EXPECT_EQ(hello_json({"How are you?", 12345, std::vector<unsigned>{17}, {}}),
              R"({"greeting":"How are you?","round_trip_ms":12.345,"listeners":[17],"notes":[]})");
    EXPECT_EQ(hello_json({"Hi", 1000, std::nullopt, {"two"}}),
              R"({"greeting":"Hi","round_trip_ms":1.0,"listeners":null,"notes":["two"]})");
    EXPECT_EQ(drop_json({2, false, "OK", std::nullopt, {}}),
              R"({"dropped":2,"dry_run":false,"message":"OK"})");
    EXPECT_EQ(drop_json({3, true, std::nullopt, std::nullopt, {}}),
              R"({"dropped":3,"dry_run":true,"message":null})");
    EXPECT_EQ(drop_json({1, false, "OK", std::vector<unsigned>{5}, {7}}),
              R"({"dropped":1,"dry_run":false,"message":"OK","ids":[5],"uncertain":[7]})");
    EXPECT_EQ(version_json("1.2.3"), R"({"version":"1.2.3"})");
}

// The connect command: who is admitted, what the reply says, and what the log shows of the request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/dropped_client.h"
#include "tests/support/expected_replies.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/unseeded_rand.h"

namespace {

using testing::ElementsAreArray;
using testing::StartsWith;

constexpr const char* LIVE = "ombrex-live";

Bytes connect_with(const Bytes& transaction_id, const Bytes& arguments) {
    return amf_string("connect") + transaction_id + arguments;
}

Bytes app_object(const Bytes& app) {
    return amf_object({{"app", app}});
}

std::vector<std::string> plus_drop(std::vector<std::string> lines) {
    for (const char* line : {"AMF0 error command", "Dropping connection", "Disposing old stream ''"}) {
        lines.emplace_back(line);
    }
    return lines;
}

std::vector<std::string> dump_of_app(const std::string& app) {
    return {"\tAMF var Object",
            "\t  Object: {",
            "\t    'app':",
            "\t      AMF var String",
            "\t        Value: '" + app + "'",
            "\t  }"};
}

void expect_rejected_app(const std::string& app, const std::string& shown) {
    std::vector<std::string> lines = dump_of_app(app);
    lines.push_back("rejected app " + shown);
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), app_object(amf_string(app)))), plus_drop(lines));
}

}  // namespace

TEST(connect, the_answer_is_exact_and_the_first_client_id_known) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.payload = connect_with(amf_number(1), app_object(amf_string(LIVE))),
                         .csid = 5,
                         .timestamp = 6,
                         .stream_id = 7});
    const RtmpMessage reply = client.expect_message(MSG_COMMAND);
    EXPECT_EQ(to_hex(reply.payload), to_hex(connect_reply(amf_number(1), 1623280412)));
    EXPECT_EQ(to_hex(reply.raw), to_hex(chunked({.payload = connect_reply(amf_number(1), 1623280412),
                                                 .csid = 5,
                                                 .timestamp = 6,
                                                 .stream_id = 7})))
        << "the answer has the header of the request";
}

TEST(connect, the_answer_is_the_only_message) {
    ServerProcess server;
    RtmpClient client = connected_client();
    EXPECT_TRUE(client.round_trip().empty());
}

TEST(connect, the_request_is_shown_and_then_the_decision) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    (void)client.connect_app(LIVE);
    std::vector<std::string> expected = dump_of_app(LIVE);
    expected.push_back("accepted app ombrex-live");
    EXPECT_THAT(server.lines_since(mark), ElementsAreArray(expected));
}

TEST(connect, both_applications_are_served) {
    ServerProcess server;
    (void)connected_client("ombrex-output");
    server.wait_for_line("accepted app ombrex-output");
    (void)connected_client("ombrex-live");
    server.wait_for_line("accepted app ombrex-live");
}

TEST(connect, one_slash_at_the_end_is_removed) {
    ServerProcess server;
    (void)connected_client("ombrex-live/");
    (void)connected_client("ombrex-output/");
    server.wait_for_lines({"accepted app ombrex-live", "accepted app ombrex-output"});
}

TEST(connect, two_slashes_at_the_end_are_one_too_many) {
    expect_rejected_app("ombrex-live//", "ombrex-live/");
}

TEST(connect, other_applications_are_refused_without_an_answer) {
    expect_rejected_app("Ombrex-Live", "Ombrex-Live");
    expect_rejected_app("OMBREX-LIVE", "OMBREX-LIVE");
    expect_rejected_app("ombrex-live2", "ombrex-live2");
    expect_rejected_app("ombrex-liv", "ombrex-liv");
    expect_rejected_app("/ombrex-live", "/ombrex-live");
    expect_rejected_app("ombrex-live/a", "ombrex-live/a");
    expect_rejected_app("", "");
    expect_rejected_app("/", "");
    expect_rejected_app("%s%n", "%s%n");
}

TEST(connect, a_name_is_compared_whole_but_shown_up_to_its_first_zero_byte) {
    const std::string with_zero("ombrex-live\0x", 13);
    std::vector<std::string> lines = dump_of_app(LIVE);
    lines.emplace_back("rejected app ombrex-live");
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), app_object(amf_string(with_zero)))),
              plus_drop(lines));
}

TEST(connect, the_application_may_be_any_kind_of_string) {
    ServerProcess server;
    for (const Bytes& app : {amf_long_string(LIVE), amf_xml_document(LIVE)}) {
        RtmpClient client = handshaken_client();
        client.send_command(connect_with(amf_number(1), app_object(app)));
        EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")));
    }
}

TEST(connect, the_request_may_be_an_array) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_command(connect_with(amf_number(1), amf_ecma_array(1, {{"app", amf_string(LIVE)}})));
    EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")));
}

TEST(connect, a_missing_application_is_an_empty_one) {
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), amf_null())),
              plus_drop({"\tAMF var Null", "rejected app "}));
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), amf_string(LIVE))),
              plus_drop({"\tAMF var String", "\t  Value: 'ombrex-live'", "rejected app "}));
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), app_object(amf_number(5)))),
              plus_drop({"\tAMF var Object", "\t  Object: {", "\t    'app':", "\t      AMF var Number",
                         "\t        Value: 5.000", "\t  }", "rejected app "}));
}

TEST(connect, the_transaction_id_must_be_1) {
    const std::vector<Bytes> rows = {amf_number(2),
                                     amf_number(1.5),
                                     amf_number(0),
                                     amf_number(-1),
                                     amf_number(std::nan("")),
                                     amf_boolean(0),
                                     amf_string("1"),
                                     amf_null(),
                                     amf_undefined(),
                                     amf_object({}),
                                     amf_number(std::numeric_limits<double>::infinity()),
                                     amf_number(std::nextafter(1.0, 2.0))};
    for (const Bytes& id : rows) {
        EXPECT_EQ(lines_of_failure(connect_with(id, app_object(amf_string(LIVE)))), plus_drop({}))
            << to_hex(id);
    }
}

TEST(connect, a_true_transaction_id_is_accepted_and_echoed_unchanged) {
    ServerProcess server;
    for (const int byte : {1, 2, 255}) {
        RtmpClient client = handshaken_client();
        client.send_command(connect_with(amf_boolean(byte), app_object(amf_string(LIVE))));
        const RtmpMessage reply = client.expect_message(MSG_COMMAND);
        EXPECT_EQ(to_hex(reply.payload.substr(0, 12)), to_hex(amf_string("_result") + amf_boolean(byte)));
    }
}

TEST(connect, a_truncated_request_is_silently_refused) {
    EXPECT_EQ(lines_of_failure(amf_string("connect")), plus_drop({}));
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), "")), plus_drop({})) << "only the transaction id";
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1).substr(0, 8), "")), plus_drop({}));
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), amf_string("abcde").substr(0, 7))), plus_drop({}));
}

TEST(connect, one_optional_argument_is_decoded_and_ignored) {
    ServerProcess server;
    for (const Bytes& argument : {amf_null(), amf_object({{"app", amf_string("x")}}), amf_number(4)}) {
        RtmpClient client = handshaken_client();
        client.send_command(connect_with(amf_number(1), app_object(amf_string(LIVE)) + argument));
        EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")));
    }
    RtmpClient client = handshaken_client();
    client.send_command(
        connect_with(amf_number(1), app_object(amf_string(LIVE)) + amf_null() + from_hex("0A FF")));
    EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")))
        << "what follows is not read";
}

TEST(connect, an_optional_argument_that_cannot_be_decoded_refuses_the_request_after_it_was_shown) {
    EXPECT_EQ(lines_of_failure(connect_with(amf_number(1), app_object(amf_string(LIVE)) + from_hex("0A"))),
              plus_drop(dump_of_app(LIVE)));
}

TEST(connect, may_be_repeated_and_draws_a_new_client_id) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    UnseededRand numbers;
    (void)numbers.handshake_bytes();
    for (const char* app : {"ombrex-live", "ombrex-output", "ombrex-live"}) {
        EXPECT_EQ(to_hex(client.connect_app(app).payload),
                  to_hex(connect_reply(amf_number(1), numbers.product())));
    }
}

TEST(connect, a_refused_client_has_drawn_its_client_id) {
    ServerProcess server;
    RtmpClient refused = handshaken_client();
    refused.send_connect("x");
    (void)refused.expect_closed_without_answer();
    UnseededRand numbers;
    (void)numbers.handshake_bytes();
    (void)numbers.product();
    RtmpClient client = handshaken_client();
    (void)numbers.handshake_bytes();
    EXPECT_EQ(client.connect_app().payload, connect_reply(amf_number(1), numbers.product()));
}

TEST(connect, a_refused_repeat_drops_the_client) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    client.send_connect("x");
    (void)client.expect_closed_without_answer();
    server.wait_for_lines({"rejected app x", "AMF0 error command", "Dropping connection"}, mark);
}

TEST(connect, a_client_that_sends_byte_by_byte_gets_its_answer) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_in_pieces(chunked({.payload = connect_with(amf_number(1), app_object(amf_string(LIVE)))}), 1);
    EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, connect_reply(amf_number(1), 1623280412));
}

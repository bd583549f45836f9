// The commands of the control socket, as a script sends them: through the tool's "raw", to the real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"
#include "tests/support/tool_run.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::size_t SLOTS = 128;
// C0, C1 and C2; and S0, S1 and S2.
constexpr std::uint64_t HANDSHAKE_BYTES = 3073;
const std::string DROP_BY_ID = "drop connection by id";
const std::string DROP_BY_NAME = "drop connection by stream name";
const std::string LIST = "list connections";
const std::pair<std::string, std::string> FIELD_ORDER{
    "connection field order",
    "connect id,stream name,stream mode,video size,byte sent to,byte recv from,address"};

using Clients = std::vector<std::unique_ptr<RtmpClient>>;

// Connects clients that are accepted in this order and send nothing. At most as many at a time as the kernel
// queues for the server; a client that finds the queue full tries again a second later.
Clients silent_clients(const ServerProcess& server, std::size_t count) {
    constexpr std::size_t AT_A_TIME = 16;
    const LineMark mark = server.mark();
    Clients clients;
    for (std::size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<RtmpClient>());
        if ((i + 1) % AT_A_TIME == 0 || i + 1 == count) {
            server.err().wait_for_count("Accepted connection", i + 1, mark);
        }
    }
    return clients;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts{""};
    for (const char c : text) {
        if (c == separator) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

struct Line {
    std::string id;
    std::string name;
    std::string mode;
    std::string size;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::string address;
};

Line parse_line(const std::string& text) {
    const std::vector<std::string> fields = split(text, '\t');
    if (fields.size() != 7) {
        throw TestFailure("a connection line with " + std::to_string(fields.size()) + " fields: " + text);
    }
    return {fields[0], fields[1], fields[2], fields[3], std::stoull(fields[4]), std::stoull(fields[5]),
            fields[6]};
}

// Returns the lines of a list with any filter. The rest of the reply must be as always.
std::vector<std::string> listed(const std::vector<std::string>& arguments = {}) {
    const ControlReply reply = ask_raw(LIST, arguments);
    EXPECT_EQ(reply.status, CONTROL_SUCCESS);
    EXPECT_EQ(reply.command, LIST);
    EXPECT_EQ(reply.message, "Connection list response");
    EXPECT_EQ(reply.pairs.at(0), FIELD_ORDER);
    std::vector<std::string> lines = reply.values("connection");
    EXPECT_EQ(reply.pairs.size(), lines.size() + 1);
    return lines;
}

std::vector<std::string> listed_names(const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> names;
    for (const std::string& line : listed(arguments)) {
        names.push_back(parse_line(line).name);
    }
    return names;
}

std::optional<Line> find_line(const RtmpClient& client) {
    for (const std::string& text : listed()) {
        const Line line = parse_line(text);
        if (line.address == client.local_address()) {
            return line;
        }
    }
    return std::nullopt;
}

Line line_of(const RtmpClient& client) {
    const std::optional<Line> line = find_line(client);
    if (!line) {
        throw TestFailure("no line has the address " + client.local_address());
    }
    return *line;
}

std::string id_of(const RtmpClient& client) {
    return line_of(client).id;
}

// Requires that the client is still served: it gets the reply to a request.
void expect_served(RtmpClient& client) {
    EXPECT_THAT(client.round_trip(), IsEmpty());
}

ControlReply drop_reply(const std::string& message, std::uint64_t status = CONTROL_SUCCESS) {
    return {status, DROP_BY_ID, message};
}

ControlReply dropped_reply(int count) {
    return {CONTROL_SUCCESS, DROP_BY_NAME, "OK, " + std::to_string(count) + " connections dropped"};
}

// Sends requests with the request bit and other fields that "raw" does not let the user choose.
class control_commands_on_the_wire_test : public testing::Test {
  protected:
    ServerProcess server;
    ControlPeer peer;
};

}  // namespace

// ---- hello and unknown commands

TEST(control_commands, hello_is_answered_with_a_question) {
    const ServerProcess server;
    const LineMark mark = server.mark();
    EXPECT_EQ(ask_raw("hello"), (ControlReply{CONTROL_SUCCESS, "hello", "How are you?"}));
    EXPECT_EQ(run_tool({"raw", "hello"}).out,
              "{\"status\": 0, \"command\": \"hello\", \"message\": \"How are you?\", \"pairs\": []}\n");
    EXPECT_EQ(ask_raw("hello", {"there", "", "-x"}),
              (ControlReply{CONTROL_SUCCESS, "hello", "How are you?"}));
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(control_commands, unknown_commands_are_answered_with_their_name_and_status_6_and_print_a_line) {
    const ServerProcess server;
    for (const char* const command : {"foo", "", "Hello", "HELLO", "hello ", " hello", "hell", "helloo",
                                      "list", "List connections", "list connections ", "drop connection",
                                      "drop connection by id ", "drop connection by stream", "%s%n%d"}) {
        const LineMark mark = server.mark();
        EXPECT_EQ(ask_raw(command, {"0"}), (ControlReply{CONTROL_ERROR, command, "Unknown command"}));
        EXPECT_THAT(server.lines_since(mark), ElementsAre("Unknown command '" + std::string(command) + "'"));
    }
}

TEST(control_commands, an_async_hello_gets_no_reply) {
    const ServerProcess server;
    const LineMark mark = server.mark();
    const ProgramRun run = run_tool({"raw", "--async", "hello"});
    EXPECT_EQ(run.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
    // The second of these is answered in a later poll than the first: the async one is done by then.
    (void)ask_raw("hello");
    (void)ask_raw("hello");
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(control_commands, an_async_unknown_command_is_dumped_in_readable_form_and_not_answered) {
    const ServerProcess server;
    const LineMark mark = server.mark();
    const ProgramRun run = run_tool({"raw", "--async", "foo bar", "cam1", "", "two\nlines\t\"quoted\""});
    EXPECT_EQ(run.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
    const LineMark told = server.wait_for_line("Unknown command 'foo bar'", mark);
    (void)server.wait_for_consecutive_lines(
        {"Unknown command 'foo bar'", "Packet: request, async, id 1, status 0", "  command: \"foo bar\"",
         "  message: \"\"", "  argument 0: \"cam1\"", "  argument 1: \"\"",
         R"(  argument 2: "two\x0Alines\x09\"quoted\"")"},
        mark);
    (void)ask_raw("hello");
    EXPECT_THAT(server.lines_since(told), SizeIs(6));
}

// ---- list connections

TEST(control_commands, the_list_of_an_empty_table_has_the_field_order_only) {
    const ServerProcess server;
    EXPECT_EQ(ask_raw(LIST),
              (ControlReply{CONTROL_SUCCESS, LIST, "Connection list response", {FIELD_ORDER}}));
    for (const char* const filter : {"", "play", "publish", "anything"}) {
        EXPECT_EQ(ask_raw(LIST, {filter}),
                  (ControlReply{CONTROL_SUCCESS, LIST, "Connection list response", {FIELD_ORDER}}));
    }
}

TEST(control_commands, a_connection_is_listed_with_slot_name_mode_size_bytes_and_address) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const RtmpClient player = playing_client("cam2");
    const RtmpClient shaken = handshaken_client();
    publisher.send_metadata(amf_object({{"height", amf_number(720)}, {"width", amf_number(1280)}}));
    expect_served(publisher);
    const std::vector<std::string> lines = listed();
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_THAT(lines[0], StartsWith("0\tcam1\tpublish\t1280x720\t"));
    EXPECT_THAT(lines[1], StartsWith("1\tcam2\tplay\t\t"));
    EXPECT_EQ(lines[2], "2\t\t\t\t3073\t3073\t" + shaken.local_address());
    EXPECT_EQ(parse_line(lines[0]).address, publisher.local_address());
    EXPECT_EQ(parse_line(lines[1]).address, player.local_address());
    for (const std::string& line : lines) {
        EXPECT_GE(parse_line(line).sent, HANDSHAKE_BYTES);
        EXPECT_GE(parse_line(line).received, HANDSHAKE_BYTES);
    }
}

TEST(control_commands, a_player_is_listed_with_the_size_that_it_was_sent) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    EXPECT_EQ(line_of(player).size, "");
    publisher.send_metadata(amf_object({{"height", amf_number(720)}, {"width", amf_number(1280)}}));
    (void)player.expect_message(MSG_DATA);
    EXPECT_EQ(line_of(player).size, "1280x720");
}

TEST(control_commands, the_listed_bytes_are_those_that_went_over_the_wire) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    expect_served(publisher);
    expect_served(player);
    EXPECT_EQ(line_of(publisher).received, publisher.bytes_sent());
    const Line player_before = line_of(player);
    EXPECT_EQ(player_before.received, player.bytes_sent());
    publisher.send_audio(1000, aac_frame(1, 1000));
    const RtmpMessage message = player.expect_message(MSG_AUDIO);
    expect_served(publisher);
    EXPECT_EQ(line_of(publisher).received, publisher.bytes_sent());
    EXPECT_EQ(line_of(player).sent, player_before.sent + message.raw.size());
}

TEST(control_commands, the_filter_picks_one_mode_and_an_empty_one_picks_all) {
    const ServerProcess server;
    const RtmpClient unnamed = connected_client();
    const RtmpClient first_player = playing_client("cam1");
    const RtmpClient publisher = publishing_client("cam2");
    const RtmpClient second_player = playing_client("cam3");
    EXPECT_THAT(listed_names({"play"}), ElementsAre("cam1", "cam3"));
    EXPECT_THAT(listed_names({"publish"}), ElementsAre("cam2"));
    EXPECT_THAT(listed_names({""}), ElementsAre("", "cam1", "cam2", "cam3"));
    EXPECT_THAT(listed_names(), ElementsAre("", "cam1", "cam2", "cam3"));
    // Only the whole word as written matches; arguments after the first are ignored.
    for (const char* const nobody : {"Play", "pla", "plays", "play ", "none", "cam1"}) {
        EXPECT_THAT(listed({nobody}), IsEmpty()) << nobody;
    }
    EXPECT_THAT(listed_names({"publish", "play"}), ElementsAre("cam2"));
}

TEST(control_commands, a_size_that_is_not_whole_leaves_two_tabs_together) {
    struct Case {
        const char* name;
        AmfMembers metadata;
        const char* size;
    };
    const std::vector<Case> cases{
        {"both", {{"height", amf_number(1080)}, {"width", amf_number(1920)}}, "1920x1080"},
        {"one_pixel", {{"height", amf_number(1)}, {"width", amf_number(1)}}, "1x1"},
        {"no_metadata", {}, ""},
        {"no_height", {{"width", amf_number(1280)}}, ""},
        {"no_width", {{"height", amf_number(720)}}, ""},
        {"width_0", {{"height", amf_number(720)}, {"width", amf_number(0)}}, ""},
        {"height_0", {{"height", amf_number(0)}, {"width", amf_number(1280)}}, ""},
        {"negative_width", {{"height", amf_number(720)}, {"width", amf_number(-1280)}}, ""},
        {"negative_height", {{"height", amf_number(-720)}, {"width", amf_number(1280)}}, ""},
    };
    const ServerProcess server;
    std::vector<RtmpClient> publishers;
    publishers.reserve(cases.size());
    for (const Case& row : cases) {
        publishers.push_back(publishing_client(row.name));
        if (!row.metadata.empty()) {
            publishers.back().send_metadata(amf_object(row.metadata));
        }
        expect_served(publishers.back());
    }
    const std::vector<std::string> lines = listed();
    ASSERT_THAT(lines, SizeIs(cases.size()));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_THAT(lines[i], StartsWith(std::to_string(i) + "\t" + cases[i].name + "\tpublish\t" +
                                         cases[i].size + "\t"));
        EXPECT_THAT(split(lines[i], '\t'), SizeIs(7));
    }
}

TEST(control_commands, a_full_table_is_listed_in_slot_order_and_all_unnamed_are_dropped_at_once) {
    const ServerProcess server;
    Clients clients = silent_clients(server, SLOTS);
    const std::vector<std::string> lines = listed();
    ASSERT_THAT(lines, SizeIs(SLOTS));
    for (std::size_t i = 0; i < SLOTS; ++i) {
        EXPECT_EQ(lines[i], std::to_string(i) + "\t\t\t\t0\t0\t" + clients[i]->local_address());
    }
    EXPECT_EQ(ask_raw(DROP_BY_NAME), dropped_reply(SLOTS));
    server.err().wait_for_count("Dropping connection", SLOTS);
    EXPECT_THAT(listed(), IsEmpty());
}

TEST(control_commands, the_list_is_in_slot_order) {
    const ServerProcess server;
    Clients clients = silent_clients(server, SLOTS);
    for (const std::size_t leaving : {3U, 100U, 40U}) {
        const LineMark mark = server.mark();
        EXPECT_EQ(ask_raw(DROP_BY_ID, {std::to_string(leaving)}), drop_reply("OK"));
        server.wait_for_line("Dropping connection", mark);
        clients[leaving] = std::move(silent_clients(server, 1).front());
    }
    const std::vector<std::string> lines = listed();
    ASSERT_THAT(lines, SizeIs(SLOTS));
    for (std::size_t i = 0; i < SLOTS; ++i) {
        EXPECT_EQ(lines[i], std::to_string(i) + "\t\t\t\t0\t0\t" + clients[i]->local_address());
    }
}

// ---- drop connection by id

TEST(control_commands, an_id_is_the_number_at_the_start_of_the_argument) {
    const ServerProcess server;
    Clients clients = silent_clients(server, 10);
    struct Case {
        const char* argument;
        std::size_t dropped;
    };
    // 4294967302 is 6 in 32 bits.
    for (const Case& row : {Case{"5x", 5}, Case{"007", 7}, Case{"4294967302", 6}, Case{"0x3", 0},
                            Case{"2 3", 2}, Case{"9-1", 9}, Case{"1.9", 1}}) {
        const LineMark mark = server.mark();
        EXPECT_EQ(ask_raw(DROP_BY_ID, {row.argument}), drop_reply("OK")) << row.argument;
        server.wait_for_line("Dropping connection", mark);
        clients[row.dropped]->expect_closed_without_answer();
        EXPECT_EQ(find_line(*clients[row.dropped]), std::nullopt) << row.argument;
        clients[row.dropped].reset();
        EXPECT_EQ(ask_raw(DROP_BY_ID, {row.argument}), drop_reply("OK, no such connection")) << row.argument;
        EXPECT_EQ(server.count("Dropping connection", mark), 1U) << row.argument;
    }
    EXPECT_THAT(listed(), SizeIs(3));
    for (const std::size_t kept : {3U, 4U, 8U}) {
        EXPECT_EQ(line_of(*clients[kept]).id, std::to_string(kept));
    }
}

TEST(control_commands, an_id_keeps_its_lowest_32_bits) {
    const ServerProcess server;
    Clients clients = silent_clients(server, 6);
    EXPECT_EQ(ask_raw(DROP_BY_ID, {"4294967301"}), drop_reply("OK"));
    clients[5]->expect_closed_without_answer();
    EXPECT_EQ(ask_raw(DROP_BY_ID, {"4294967423"}), drop_reply("OK, no such connection")) << "127 in 32 bits";
    for (const char* const beyond : {"4294967424", "4294967295", "2147483653", "99999999999999999999"}) {
        EXPECT_EQ(ask_raw(DROP_BY_ID, {beyond}), drop_reply("Bad or invalid connection ID", CONTROL_ERROR))
            << beyond;
    }
    EXPECT_THAT(listed(), SizeIs(5));
}

TEST(control_commands, an_invalid_slot_id_is_refused_with_status_6) {
    const ServerProcess server;
    const LineMark mark = server.mark();
    Clients clients = silent_clients(server, 8);
    const ControlReply refusal = drop_reply("Bad or invalid connection ID", CONTROL_ERROR);
    EXPECT_EQ(ask_raw(DROP_BY_ID), refusal) << "no argument";
    for (const char* const argument :
         {"x5", "-1", "-5", "128", "129", "5000000000", " 5", "+5", "", "\t5", "five", "x", "-0"}) {
        EXPECT_EQ(ask_raw(DROP_BY_ID, {argument}), refusal) << argument;
    }
    EXPECT_EQ(ask_raw(DROP_BY_ID, {"128", ""}), refusal);
    EXPECT_EQ(ask_raw(DROP_BY_ID, {"x5", "cam1"}), refusal);
    EXPECT_THAT(listed(), SizeIs(8));
    EXPECT_EQ(server.count("Dropping connection", mark), 0U);
}

TEST(control_commands, a_slot_without_a_connection_is_not_an_error) {
    const ServerProcess server;
    for (const char* const argument : {"0", "5", "127"}) {
        EXPECT_EQ(ask_raw(DROP_BY_ID, {argument}), drop_reply("OK, no such connection")) << argument;
    }
    // The name of an absent connection is not checked.
    EXPECT_EQ(ask_raw(DROP_BY_ID, {"5", "cam1"}), drop_reply("OK, no such connection"));
}

TEST(control_commands, a_connection_is_dropped_only_if_its_stream_has_the_given_name) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    const std::string publisher_id = id_of(publisher);
    const std::string player_id = id_of(player);
    const LineMark mark = server.mark();
    for (const char* const other : {"cam2", "cam", "cam10", "CAM1", "cam1 ", " "}) {
        EXPECT_EQ(ask_raw(DROP_BY_ID, {publisher_id, other}), drop_reply("Stream name does not match"))
            << other;
        EXPECT_EQ(ask_raw(DROP_BY_ID, {player_id, other}), drop_reply("Stream name does not match")) << other;
    }
    expect_served(publisher);
    expect_served(player);
    EXPECT_EQ(server.count("Dropping connection", mark), 0U);

    EXPECT_EQ(ask_raw(DROP_BY_ID, {publisher_id, "cam1"}), drop_reply("OK"));
    publisher.expect_closed_without_answer();
    server.wait_for_line("Dropping connection", mark);
    expect_served(player);
    EXPECT_EQ(ask_raw(DROP_BY_ID, {player_id, "cam1", "cam2"}), drop_reply("OK"));
    player.expect_closed_without_answer();
    server.err().wait_for_count("Dropping connection", 2, mark);
}

TEST(control_commands, an_empty_name_is_no_condition) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient unnamed = connected_client();
    EXPECT_EQ(ask_raw(DROP_BY_ID, {id_of(publisher), ""}), drop_reply("OK"));
    publisher.expect_closed_without_answer();
    EXPECT_EQ(ask_raw(DROP_BY_ID, {id_of(unnamed), ""}), drop_reply("OK"));
    unnamed.expect_closed_without_answer();
    server.err().wait_for_count("Dropping connection", 2);
}

TEST(control_commands, a_connection_without_a_name_matches_no_given_name) {
    const ServerProcess server;
    RtmpClient unnamed = connected_client();
    const std::string id = id_of(unnamed);
    EXPECT_EQ(ask_raw(DROP_BY_ID, {id, "cam1"}), drop_reply("Stream name does not match"));
    expect_served(unnamed);
    EXPECT_EQ(ask_raw(DROP_BY_ID, {id}), drop_reply("OK"));
    unnamed.expect_closed_without_answer();
}

TEST(control_commands, a_publisher_whose_media_is_held_is_dropped_at_once_even_if_it_has_left) {
    const ServerProcess server;
    for (const bool has_left : {false, true}) {
        RtmpClient publisher = publishing_client("cam1");
        // An hour ahead.
        publisher.send_audio(1000, aac_frame(1));
        publisher.send_audio(3601000, aac_frame(2));
        const std::string id = id_of(publisher);
        const LineMark mark = server.mark();
        if (has_left) {
            publisher.close();
            server.wait_for_line("Thread 1 died", mark);
        }
        EXPECT_THAT(listed_names(), ElementsAre("cam1"));
        EXPECT_EQ(ask_raw(DROP_BY_ID, {id, "cam1"}), drop_reply("OK"));
        server.wait_for_line("Dropping connection", mark);
        EXPECT_THAT(listed(), IsEmpty());
    }
}

// ---- drop connection by stream name

TEST(control_commands, all_connections_of_a_stream_are_dropped_and_no_other) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient first_player = playing_client("cam1");
    RtmpClient second_player = playing_client("cam1");
    RtmpClient longer = playing_client("cam10");
    RtmpClient upper = playing_client("CAM1");
    RtmpClient unnamed = connected_client();
    const LineMark mark = server.mark();
    EXPECT_EQ(ask_raw(DROP_BY_NAME, {"cam1", "cam10"}), dropped_reply(3));
    for (RtmpClient* client : {&publisher, &first_player, &second_player}) {
        client->expect_closed_without_answer();
    }
    server.err().wait_for_count("Dropping connection", 3, mark);
    for (RtmpClient* client : {&longer, &upper, &unnamed}) {
        expect_served(*client);
    }
    EXPECT_EQ(server.count("Dropping connection", mark), 3U);
    EXPECT_EQ(ask_raw(DROP_BY_NAME, {"cam1"}), dropped_reply(0)) << "they have gone";
}

TEST(control_commands, an_unused_name_drops_no_connection) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient unnamed = connected_client();
    for (const char* const name : {"cam2", "cam", "cam1 ", " ", "cam1/", "%s"}) {
        EXPECT_EQ(ask_raw(DROP_BY_NAME, {name}), dropped_reply(0)) << name;
    }
    EXPECT_EQ(
        run_tool({"raw", DROP_BY_NAME, "cam2"}).out,
        "{\"status\": 0, \"command\": \"drop connection by stream name\", \"message\": \"OK, 0 connections "
        "dropped\", \"pairs\": []}\n");
    expect_served(publisher);
    expect_served(unnamed);
    EXPECT_EQ(server.count("Dropping connection"), 0U);
}

TEST(control_commands, an_empty_or_absent_name_stands_for_all_connections_without_a_name) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, std::vector<std::string>{""}}) {
        const LineMark mark = server.mark();
        RtmpClient silent;
        RtmpClient shaken = handshaken_client();
        RtmpClient connected = connected_client();
        EXPECT_EQ(ask_raw(DROP_BY_NAME, arguments), dropped_reply(3));
        for (RtmpClient* client : {&silent, &shaken, &connected}) {
            client->expect_closed_without_answer();
        }
        server.err().wait_for_count("Dropping connection", 3, mark);
        expect_served(publisher);
        expect_served(player);
        EXPECT_EQ(server.count("Dropping connection", mark), 3U);
    }
}

// ---- async

TEST(control_commands, async_commands_are_not_executed) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient unnamed = connected_client();
    const std::string id = id_of(publisher);
    const LineMark mark = server.mark();
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {DROP_BY_ID, id}, {DROP_BY_NAME, "cam1"}, {DROP_BY_NAME}, {LIST}, {DROP_BY_ID, "x5"}}) {
        std::vector<std::string> arguments = {"raw", "--async"};
        arguments.insert(arguments.end(), words.begin(), words.end());
        const ProgramRun run = run_tool(arguments);
        EXPECT_EQ(run.end, (ProgramEnd{0, 0}));
        EXPECT_EQ(run.out + run.err, "");
    }
    // The second of these is answered in a later poll than the first, and a drop would be done by then.
    (void)ask_raw("hello");
    EXPECT_THAT(listed_names(), ElementsAre("cam1", ""));
    expect_served(publisher);
    expect_served(unnamed);
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

// ---- what "raw" cannot send

TEST_F(control_commands_on_the_wire_test, a_reply_carries_the_id_of_its_request_and_no_flags) {
    for (const std::uint64_t id : {std::uint64_t{0}, std::uint64_t{7}, UINT64_MAX}) {
        peer.send_bytes(control_request(id, "hello"));
        const ControlReply reply = peer.read_reply();
        EXPECT_EQ(reply.request_id, id);
        EXPECT_EQ(reply.flags, 0U);
        EXPECT_EQ(reply.status, CONTROL_SUCCESS);
        EXPECT_EQ(reply.message, "How are you?");
    }
}

TEST_F(control_commands_on_the_wire_test, requests_are_answered_in_order_at_most_sixty_four_per_service) {
    constexpr std::uint64_t REQUESTS = 200;
    Bytes burst;
    for (std::uint64_t id = 1; id <= REQUESTS; ++id) {
        burst += control_request(id, "hello");
    }
    const TimePoint start = SteadyClock::now();
    peer.send_bytes(burst);
    for (std::uint64_t id = 1; id <= REQUESTS; ++id) {
        ASSERT_EQ(peer.read_reply().request_id, id);
    }
    // Four polls, a tenth of a second apart.
    EXPECT_GE(elapsed_since(start), Milliseconds{300});
}

TEST_F(control_commands_on_the_wire_test, async_requests_never_get_a_reply) {
    Bytes requests;
    std::uint64_t id = 0;
    for (const char* const command : {"hello", "list connections", "drop connection by id",
                                      "drop connection by stream name", "nobody knows this"}) {
        requests += control_request(++id, command, {"0"}, CONTROL_REQUEST | CONTROL_ASYNC);
    }
    peer.send_bytes(requests + control_request(100, "hello"));
    EXPECT_EQ(peer.read_reply().request_id, 100U);
    EXPECT_EQ(server.err().count_starting("Packet: "), 1U);
    EXPECT_EQ(server.count("Unknown command 'nobody knows this'"), 1U);
}

TEST_F(control_commands_on_the_wire_test, a_packet_that_is_not_a_request_is_skipped) {
    const LineMark mark = server.mark();
    RtmpClient client = connected_client();
    for (const std::uint32_t flags : {0U, CONTROL_ASYNC}) {
        peer.send_bytes(control_request(1, "hello", {}, flags) + control_request(2, "unknown", {}, flags) +
                        control_request(3, DROP_BY_NAME, {}, flags) + control_request(4, "hello"));
        EXPECT_EQ(peer.read_reply().request_id, 4U);
    }
    (void)peer.ask("hello");
    expect_served(client);
    EXPECT_EQ(server.err().count_starting("Unknown command", mark), 0U);
    EXPECT_EQ(server.count("Dropping connection", mark), 0U);
}

TEST_F(control_commands_on_the_wire_test, an_absent_argument_is_like_an_empty_name_and_like_no_id) {
    RtmpClient publisher = publishing_client("cam1");
    const RtmpClient unnamed = connected_client();
    EXPECT_THAT(peer.ask(LIST, {std::nullopt}).values("connection"), SizeIs(2));
    const ControlReply bad_id = peer.ask(DROP_BY_ID, {std::nullopt, "cam1"});
    EXPECT_EQ(bad_id.message, "Bad or invalid connection ID");
    EXPECT_EQ(bad_id.status, CONTROL_ERROR);
    EXPECT_EQ(peer.ask(DROP_BY_NAME, {std::nullopt, "cam1"}).message, "OK, 1 connections dropped");
    EXPECT_EQ(peer.ask(DROP_BY_ID, {"0", std::nullopt}).message, "OK");
    publisher.expect_closed_without_answer();
}

TEST_F(control_commands_on_the_wire_test,
       a_dropped_connection_is_listed_until_the_service_ends_and_not_in_the_next) {
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    peer.send_bytes(control_request(1, DROP_BY_ID, {"0"}) + control_request(2, DROP_BY_NAME, {"cam1"}) +
                    control_request(3, DROP_BY_ID, {"1", "cam1"}) + control_request(4, LIST));
    EXPECT_EQ(peer.read_reply().message, "OK");
    EXPECT_EQ(peer.read_reply().message, "OK, 2 connections dropped");
    EXPECT_EQ(peer.read_reply().message, "OK");
    EXPECT_THAT(peer.read_reply().values("connection"), SizeIs(2));
    EXPECT_THAT(peer.ask(LIST).values("connection"), IsEmpty());
    EXPECT_EQ(server.count("Dropping connection"), 2U);
    publisher.expect_closed_without_answer();
    player.expect_closed_without_answer();
}

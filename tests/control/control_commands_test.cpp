#include "control/control_commands.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "core/connection_table.h"
#include "core/limits.h"
#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"

namespace {

// An absent argument differs from an empty one.
using Arguments = std::vector<std::optional<std::string>>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr const char* DROP_BY_ID = "drop connection by id";
constexpr const char* DROP_BY_NAME = "drop connection by stream name";
constexpr const char* LIST = "list connections";

const std::pair<std::string, std::string> FIELD_ORDER{
    "connection field order",
    "connect id,stream name,stream mode,video size,byte sent to,byte recv from,address"};

struct Reply {
    std::string command;
    std::string message;
    std::uint64_t status = 0;
    Pairs pairs = {};

    bool operator==(const Reply&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Reply& reply) {
    return stream << reply.command << ": " << reply.message << ", status " << reply.status << ", pairs "
                  << testing::PrintToString(reply.pairs);
}

struct PacketRelease {
    void operator()(comm_socket_v4_packet* packet) const { comm_socket_v4_packet_release(packet); }
};
using Packet = std::unique_ptr<comm_socket_v4_packet, PacketRelease>;

Packet make_request(const std::string& command, const Arguments& arguments) {
    Packet request(comm_socket_v4_packet_create());
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(request.get(), 0, command.c_str(), ""), 0);
    for (const std::optional<std::string>& argument : arguments) {
        EXPECT_EQ(comm_socket_v4_packet_write_argv(request.get(), argument ? argument->c_str() : nullptr), 0);
    }
    EXPECT_EQ(comm_socket_v4_packet_write_end(request.get()), 0);
    request->request_id = 7;
    return request;
}

Packet make_response(const Packet& request) {
    Packet response(comm_socket_v4_packet_create());
    comm_socket_v4_packet_make_response(response.get());
    response->request_id = request->request_id;
    return response;
}

Reply read_reply(const Packet& packet) {
    Reply reply{comm_socket_v4_packet_get_command(packet.get()),
                comm_socket_v4_packet_get_message(packet.get()), packet->status};
    for (std::size_t i = 0; i < comm_socket_v4_packet_get_pair_count(packet.get()); ++i) {
        reply.pairs.emplace_back(comm_socket_v4_packet_get_pair_name(packet.get(), i),
                                 comm_socket_v4_packet_get_pair_value(packet.get(), i));
    }
    return reply;
}

class control_commands_test : public ConnectionFixture {
  protected:
    void SetUp() override { connections_free_scan = 0; }

    // Carries out a request that wants a reply.
    Reply ask(const std::string& command, const Arguments& arguments = {}) {
        const Packet request = make_request(command, arguments);
        const Packet response = make_response(request);
        printed = printed_by([&] { EXPECT_TRUE(run_control_command(request.get(), response.get())); });
        EXPECT_EQ(response->flags & COMM_SOCKET_V4_REQUEST, 0U);
        EXPECT_EQ(response->request_id, 7U);
        return read_reply(response);
    }

    // Carries out a request that wants none; returns what was printed.
    std::string tell(const std::string& command, const Arguments& arguments = {}) {
        const Packet request = make_request(command, arguments);
        comm_socket_v4_packet_set_async(request.get(), 1);
        const Packet response = make_response(request);
        return printed_by([&] { EXPECT_FALSE(run_control_command(request.get(), response.get())); });
    }

    RTMPConnection& add_stream(const std::string& name, const std::string& mode) {
        RTMPConnection& conn = add_connection();
        conn.stream_name = name;
        conn.stream_mode = mode;
        return conn;
    }

    void add_connections(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(add_connection().conn_idx, i);
        }
    }

    std::vector<std::size_t> requested_closes() {
        std::vector<std::size_t> slots;
        for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
            if (RTMPConnection* const conn = get_connection(i); conn != nullptr && conn->close_requested) {
                slots.push_back(i);
                conn->close_requested = false;
            }
        }
        return slots;
    }

    std::string printed;  // by the last ask()
};

using control_commands_death_test = control_commands_test;

}  // namespace

TEST_F(control_commands_test, hello_is_answered) {
    EXPECT_EQ(ask("hello"), (Reply{"hello", "How are you?", 0}));
    EXPECT_EQ(ask("hello", {"there", std::nullopt}), (Reply{"hello", "How are you?", 0}));
    EXPECT_EQ(printed, "");
}

TEST_F(control_commands_test,
       unknown_commands_are_answered_with_their_own_name_and_printed_on_standard_error) {
    for (const char* const command : {"foo", "", "Hello", "hello ", "hell", "drop connection",
                                      "drop connection by id ", "List connections", "%s%n"}) {
        EXPECT_EQ(ask(command, {"1"}), (Reply{command, "Unknown command", COMM_SOCKET_V4_STATUS_ERROR}));
        EXPECT_EQ(printed, std::string("Unknown command '") + command + "'\n");
    }
    EXPECT_EQ(COMM_SOCKET_V4_STATUS_ERROR, 6U);
}

TEST_F(control_commands_test, an_unknown_command_that_wants_no_reply_is_dumped_in_readable_form) {
    const std::string text = tell("foo", {"cam1", std::nullopt});
    EXPECT_TRUE(text.starts_with("Unknown command 'foo'\n")) << text;
    for (const char* const part : {"request, async, id 7", "\"foo\"", "\"cam1\"", "absent"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    }
}

TEST_F(control_commands_test, a_known_command_that_wants_no_reply_is_not_executed) {
    add_stream("cam1", "play");
    EXPECT_EQ(tell("hello"), "");
    EXPECT_EQ(tell(DROP_BY_NAME, {"cam1"}), "");
    EXPECT_EQ(tell(DROP_BY_ID, {"0"}), "");
    EXPECT_EQ(tell(LIST), "");
    EXPECT_EQ(requested_closes(), std::vector<std::size_t>{});
}

TEST_F(control_commands_test, all_connections_of_a_stream_are_dropped_and_counted) {
    add_stream("cam1", "publish");
    add_stream("cam1", "play");
    add_stream("cam10", "play");
    add_stream("Cam1", "play");
    add_connection();
    add_stream("cam1", "play");
    EXPECT_EQ(ask(DROP_BY_NAME, {"cam1"}), (Reply{DROP_BY_NAME, "OK, 3 connections dropped", 0}));
    EXPECT_EQ(requested_closes(), (std::vector<std::size_t>{0, 1, 5}));
    EXPECT_EQ(ask(DROP_BY_NAME, {"cam10", "cam1"}), (Reply{DROP_BY_NAME, "OK, 1 connections dropped", 0}));
    EXPECT_EQ(requested_closes(), std::vector<std::size_t>{2});
    EXPECT_EQ(printed, "");
}

TEST_F(control_commands_test, dropping_an_unused_stream_name_drops_no_connection) {
    add_stream("cam1", "play");
    EXPECT_EQ(ask(DROP_BY_NAME, {"cam2"}), (Reply{DROP_BY_NAME, "OK, 0 connections dropped", 0}));
    EXPECT_EQ(requested_closes(), std::vector<std::size_t>{});
}

TEST_F(control_commands_test, an_empty_or_absent_name_drops_the_connections_that_have_none) {
    for (const Arguments& arguments :
         {Arguments{}, Arguments{""}, Arguments{std::nullopt}, Arguments{std::nullopt, "x"}}) {
        printed_by([] { free_all_connections(); });
        connections_free_scan = 0;
        add_connection();
        add_stream("cam1", "play");
        add_stream("", "play");
        EXPECT_EQ(ask(DROP_BY_NAME, arguments), (Reply{DROP_BY_NAME, "OK, 2 connections dropped", 0}));
        EXPECT_EQ(requested_closes(), (std::vector<std::size_t>{0, 2}));
    }
}

TEST_F(control_commands_test, a_connection_is_dropped_in_the_next_pass_and_counted_until_then) {
    add_stream("cam1", "play");
    EXPECT_EQ(ask(DROP_BY_NAME, {"cam1"}).message, "OK, 1 connections dropped");
    EXPECT_EQ(ask(DROP_BY_NAME, {"cam1"}).message, "OK, 1 connections dropped");
    EXPECT_EQ(printed_by([] { idle_all_connections(); }), "Dropping connection\n");
    EXPECT_EQ(ask(DROP_BY_NAME, {"cam1"}).message, "OK, 0 connections dropped");
}

TEST_F(control_commands_test, a_connection_is_dropped_by_the_number_its_id_begins_with) {
    add_connections(8);
    struct Case {
        std::string id;
        std::size_t slot;
    };
    for (const Case& row : std::vector<Case>{{"5", 5},
                                             {"5x", 5},
                                             {"5 6", 5},
                                             {"007", 7},
                                             {"0", 0},
                                             {"0x5", 0},
                                             {"4294967301", 5},
                                             {"18446744073709551615", NO_CONNECTION}}) {
        const bool exists = row.slot != NO_CONNECTION;
        EXPECT_EQ(ask(DROP_BY_ID, {row.id}),
                  exists ? (Reply{DROP_BY_ID, "OK", 0})
                         : (Reply{DROP_BY_ID, "Bad or invalid connection ID", COMM_SOCKET_V4_STATUS_ERROR}))
            << row.id;
        EXPECT_EQ(requested_closes(),
                  exists ? std::vector<std::size_t>{row.slot} : std::vector<std::size_t>{})
            << row.id;
    }
}

TEST_F(control_commands_test, an_id_that_is_not_a_number_or_outside_the_table_is_an_error) {
    add_connections(2);
    for (const Arguments& arguments :
         {Arguments{}, Arguments{std::nullopt}, Arguments{std::nullopt, "cam1"}, Arguments{""},
          Arguments{"x5"}, Arguments{"-1"}, Arguments{"+1"}, Arguments{" 1"}, Arguments{"\t1"},
          Arguments{"128"}, Arguments{"128", ""}, Arguments{"2147483648"}, Arguments{"4294967295"},
          Arguments{"99999999999999999999"}}) {
        EXPECT_EQ(ask(DROP_BY_ID, arguments),
                  (Reply{DROP_BY_ID, "Bad or invalid connection ID", COMM_SOCKET_V4_STATUS_ERROR}))
            << testing::PrintToString(arguments);
    }
    EXPECT_EQ(requested_closes(), std::vector<std::size_t>{});
    EXPECT_EQ(printed, "");
}

TEST_F(control_commands_test, an_empty_slot_has_no_connection_to_drop) {
    add_connection();
    for (const Arguments& arguments :
         {Arguments{"1"}, Arguments{"9"}, Arguments{"99x"}, Arguments{"127", "cam1"}}) {
        EXPECT_EQ(ask(DROP_BY_ID, arguments), (Reply{DROP_BY_ID, "OK, no such connection", 0}))
            << testing::PrintToString(arguments);
    }
}

TEST_F(control_commands_test, a_connection_is_dropped_only_under_the_stream_name_that_is_given) {
    add_stream("cam1", "play");
    add_connection();
    struct Case {
        Arguments arguments;
        std::string message;
        std::vector<std::size_t> dropped;
    };
    for (const Case& row : std::vector<Case>{{{"0", "cam1"}, "OK", {0}},
                                             {{"0", ""}, "OK", {0}},
                                             {{"0", std::nullopt}, "OK", {0}},
                                             {{"0", "cam1", "x"}, "OK", {0}},
                                             {{"0", "cam2"}, "Stream name does not match", {}},
                                             {{"0", "cam10"}, "Stream name does not match", {}},
                                             {{"0", "cam"}, "Stream name does not match", {}},
                                             {{"0", "CAM1"}, "Stream name does not match", {}},
                                             {{"1", "cam1"}, "Stream name does not match", {}},
                                             {{"1", ""}, "OK", {1}}}) {
        EXPECT_EQ(ask(DROP_BY_ID, row.arguments), (Reply{DROP_BY_ID, row.message, 0}))
            << testing::PrintToString(row.arguments);
        EXPECT_EQ(requested_closes(), row.dropped) << testing::PrintToString(row.arguments);
    }
}

TEST_F(control_commands_test, an_empty_table_is_listed_with_the_field_order_alone) {
    EXPECT_EQ(ask(LIST), (Reply{LIST, "Connection list response", 0, {FIELD_ORDER}}));
}

TEST_F(control_commands_test, connections_are_listed_in_slot_order) {
    add_stream("cam1", "publish");
    add_connection();
    add_stream("cam1", "play");
    printed_by([] { free_connection(1); });
    connections_free_scan = 127;
    add_connection("");
    const Reply expected{LIST,
                         "Connection list response",
                         0,
                         {FIELD_ORDER,
                          {"connection", "0\tcam1\tpublish\t\t0\t0\t192.0.2.7:50512"},
                          {"connection", "2\tcam1\tplay\t\t0\t0\t192.0.2.7:50512"},
                          {"connection", "127\t\t\t\t0\t0\t"}}};
    EXPECT_EQ(ask(LIST), expected);
    EXPECT_EQ(ask(LIST, {""}), expected);
    EXPECT_EQ(ask(LIST, {std::nullopt, "play"}), expected);
    EXPECT_EQ(printed, "");
}

TEST_F(control_commands_test, a_list_may_be_filtered_by_mode) {
    add_stream("cam1", "publish");
    add_stream("cam1", "play");
    add_connection();
    const auto slots_listed = [&](const char* mode) {
        std::vector<std::string> slots;
        for (const auto& [name, value] : ask(LIST, {mode}).pairs) {
            if (name == "connection") {
                slots.push_back(value.substr(0, value.find('\t')));
            }
        }
        return slots;
    };
    EXPECT_EQ(slots_listed("publish"), std::vector<std::string>{"0"});
    EXPECT_EQ(slots_listed("play"), std::vector<std::string>{"1"});
    EXPECT_EQ(slots_listed("pla"), std::vector<std::string>{});
    EXPECT_EQ(slots_listed("Play"), std::vector<std::string>{});
    EXPECT_EQ(slots_listed("none"), std::vector<std::string>{});
    EXPECT_EQ(slots_listed(""), (std::vector<std::string>{"0", "1", "2"}));
}

TEST_F(control_commands_test, a_full_table_is_listed_whole) {
    add_connections(MAX_CONNECTIONS);
    const Reply reply = ask(LIST);
    ASSERT_EQ(reply.pairs.size(), MAX_CONNECTIONS + 1);
    EXPECT_TRUE(reply.pairs.back().second.starts_with("127\t"));
    EXPECT_EQ(ask(DROP_BY_NAME, {""}).message, "OK, 128 connections dropped");
    EXPECT_EQ(ask(DROP_BY_ID, {"127"}).message, "OK");
}

TEST_F(control_commands_test, a_stream_name_of_a_mebibyte_can_be_listed_and_dropped) {
    const std::string name(1048543, 'x');
    add_stream(name, "play");
    EXPECT_EQ(ask(LIST).pairs.back().second, "0\t" + name + "\tplay\t\t0\t0\t192.0.2.7:50512");
    EXPECT_EQ(ask(DROP_BY_NAME, {name}).message, "OK, 1 connections dropped");
}

TEST_F(control_commands_test, a_listing_keeps_the_names_of_connections_that_leave) {
    const std::string name(1000000, 'x');
    RTMPConnection& conn = add_stream(name, "play");
    const std::string line = std::to_string(conn.conn_idx) + "\t" + name + "\tplay\t\t0\t0\t192.0.2.7:50512";
    const Packet request = make_request(LIST, {});
    const Packet response = make_response(request);
    EXPECT_TRUE(run_control_command(request.get(), response.get()));
    conn.stream_name = "another";
    free_connection(conn.conn_idx);
    EXPECT_EQ(read_reply(response).pairs.back().second, line);
}

TEST_F(control_commands_test, a_reply_is_written_completely) {
    const Packet request = make_request("hello", {});
    const Packet response = make_response(request);
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(response.get(), 0, "left over", ""), 0);
    EXPECT_TRUE(run_control_command(request.get(), response.get()));
    // It is already complete, so it cannot be ended again.
    EXPECT_EQ(comm_socket_v4_packet_write_end(response.get()), -1);
    EXPECT_EQ(read_reply(response), (Reply{"hello", "How are you?", 0}));
}

TEST_F(control_commands_death_test, a_request_without_a_command_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT((void)run_control_command(nullptr, nullptr), testing::KilledBySignal(SIGABRT),
                assertion_line("run_control_command", "command != NULL"));
}

TEST_F(control_commands_death_test, a_reply_that_cannot_be_written_ends_the_process_and_names_the_call) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Packet request = make_request("hello", {});
    EXPECT_EXIT((void)run_control_command(request.get(), nullptr), testing::KilledBySignal(SIGABRT),
                assertion_line("begin_reply",
                               "comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0"));
}

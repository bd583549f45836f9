#include "control/control_commands.h"

#include <comm_socket_v4.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/check.h"
#include "base/diag.h"
#include "control/connection_line.h"
#include "core/connection.h"
#include "core/connection_table.h"
#include "core/limits.h"

namespace {

// Returns the whole argument, including zero bytes; empty if it is absent.
std::string_view argument_or_empty(const comm_socket_v4_packet* request, std::size_t idx) {
    const char* const argument = comm_socket_v4_packet_get_argv(request, idx);
    return argument != nullptr
               ? std::string_view(argument, comm_socket_v4_packet_get_argv_length(request, idx))
               : std::string_view();
}

void begin_reply(comm_socket_v4_packet* respkt, const char* command, const char* message) {
    CHECK(comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0);
}

void write_pair(comm_socket_v4_packet* respkt, const char* name, const char* value) {
    CHECK(comm_socket_v4_packet_write_nv_pair(respkt, name, value) == 0);
}

void write_shared_pair(comm_socket_v4_packet* respkt, const char* name, const char* before,
                       const comm_socket_v4_shared_bytes& shared, const char* after) {
    CHECK(comm_socket_v4_packet_write_nv_pair_shared(respkt, name, before, shared, after) == 0);
}

// The reply keeps the stream name until it has been sent, even if the connection is closed before that.
void write_connection(comm_socket_v4_packet* respkt, const ConnectionLine& line) {
    auto* const name = new SharedText(line.stream_name);
    const auto release = [](void* owner) { delete static_cast<SharedText*>(owner); };
    write_shared_pair(respkt, "connection", line.before_name.c_str(),
                      {name->str().data(), name->str().size(), name, release}, line.after_name.c_str());
}  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): release frees it

void end_reply(comm_socket_v4_packet* respkt) {
    CHECK(comm_socket_v4_packet_write_end(respkt) == 0);
}

void write_reply(comm_socket_v4_packet* respkt, const char* command, const char* message) {
    begin_reply(respkt, command, message);
    end_reply(respkt);
}

void greet(const comm_socket_v4_packet* /*request*/, comm_socket_v4_packet* respkt) {
    write_reply(respkt, "hello", "How are you?");
}

// intended: an empty or absent name drops every connection whose stream name is empty.
void drop_by_stream_name(const comm_socket_v4_packet* request, comm_socket_v4_packet* respkt) ON_MAIN_THREAD {
    const std::string_view name = argument_or_empty(request, 0);
    int dropped = 0;
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        RTMPConnection* const p = get_connection(i);
        if (p != nullptr && p->stream_name == name) {
            p->close_requested = true;
            ++dropped;
        }
    }
    const std::string message = "OK, " + std::to_string(dropped) + " connections dropped";
    write_reply(respkt, "drop connection by stream name", message.c_str());
}

// Parses a number that begins with a digit and ignores what follows it. Returns its low 32 bits, or -1 for
// anything else.
std::int32_t parse_connection_id(const char* argument) {
    if (argument == nullptr || *argument < '0' || *argument > '9') {
        return -1;
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(std::strtoll(argument, nullptr, 10)));
}

// Returns the reply text. If an expected stream name is given, the connection is dropped only if its stream
// has that name.
const char* drop_connection(std::size_t conn_idx, std::string_view expected_stream_name) ON_MAIN_THREAD {
    RTMPConnection* const p = get_connection(conn_idx);
    if (p == nullptr) {
        return "OK, no such connection";
    }
    if (!expected_stream_name.empty() && p->stream_name != expected_stream_name) {
        return "Stream name does not match";
    }
    p->close_requested = true;
    return "OK";
}

void drop_by_id(const comm_socket_v4_packet* request, comm_socket_v4_packet* respkt) ON_MAIN_THREAD {
    const char* message = "Bad or invalid connection ID";
    const auto id =
        static_cast<std::uint32_t>(parse_connection_id(comm_socket_v4_packet_get_argv(request, 0)));
    if (id < MAX_CONNECTIONS) {
        message = drop_connection(id, argument_or_empty(request, 1));
    } else {
        respkt->status = COMM_SOCKET_V4_STATUS_ERROR;
    }
    write_reply(respkt, "drop connection by id", message);
}

void list_connections(const comm_socket_v4_packet* request, comm_socket_v4_packet* respkt) ON_MAIN_THREAD {
    const std::string_view mode = argument_or_empty(request, 0);
    begin_reply(respkt, "list connections", "Connection list response");
    write_pair(respkt, "connection field order",
               "connect id,stream name,stream mode,video size,byte sent to,byte recv from,address");
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        RTMPConnection* const p = get_connection(i);
        if (p != nullptr && (mode.empty() || p->stream_mode == mode)) {
            write_connection(respkt, connection_line(*p));
        }
    }
    end_reply(respkt);
}

bool refuse_unknown(const comm_socket_v4_packet* request, comm_socket_v4_packet* respkt,
                    const char* command) {
    diag("Unknown command '%s'\n", command);
    if ((request->flags & COMM_SOCKET_V4_ASYNC) != 0) {
        comm_socket_v4_packet_dump_user_friendly(request, stderr);
        return false;
    }
    respkt->status = COMM_SOCKET_V4_STATUS_ERROR;
    write_reply(respkt, command, "Unknown command");
    return true;
}

struct ControlCommand {
    std::string_view name;
    void (*run)(const comm_socket_v4_packet* request, comm_socket_v4_packet* respkt);
};

constexpr std::array<ControlCommand, 4> COMMANDS{{
    {"hello", greet},
    {"drop connection by stream name", drop_by_stream_name},
    {"drop connection by id", drop_by_id},
    {"list connections", list_connections},
}};

}  // namespace

bool run_control_command(const comm_socket_v4_packet* request, comm_socket_v4_packet* respkt) {
    const char* const command = comm_socket_v4_packet_get_command(request);
    CHECK(command != NULL);  // NOLINT(modernize-use-nullptr): operators search for this text
    const std::string_view name(command, comm_socket_v4_packet_get_command_length(request));
    for (const ControlCommand& known : COMMANDS) {
        if (known.name == name) {
            if ((request->flags & COMM_SOCKET_V4_ASYNC) != 0) {
                return false;  // intended: the client would not learn the result.
            }
            known.run(request, respkt);
            return true;
        }
    }
    return refuse_unknown(request, respkt, command);
}

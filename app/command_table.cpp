#include "app/command_table.h"

#include <array>
#include <string_view>

#include "base/diag.h"

namespace {

// A known command that needs no reply.
bool ignore_command(RTMPConnection& /*conn*/, const RTMP_Packet& /*request*/, CommandArgs /*args*/) {
    return true;
}

// The client has finished, so the connection is dropped.
bool handle_delete_stream(RTMPConnection& /*conn*/, const RTMP_Packet& /*request*/, CommandArgs /*args*/) {
    return refuse("deleteStream, drop connection\n");
}

struct Command {
    std::string_view name;
    CommandHandler handler;
};

constexpr std::array<Command, 9> COMMANDS{{
    {"connect", handle_connect},
    {"play", handle_play},
    {"getStreamLength", ignore_command},
    {"releaseStream", reply_result_only},
    {"FCPublish", reply_result_only},
    {"createStream", handle_create_stream},
    {"publish", handle_publish},
    {"deleteStream", handle_delete_stream},
    {"FCUnpublish", reply_result_only},
}};

}  // namespace

bool run_command(RTMPConnection& conn, const RTMP_Packet& request, const std::string& name,
                 CommandArgs args) {
    for (const Command& command : COMMANDS) {
        if (name == command.name) {
            return command.handler(conn, request, args);
        }
    }
    return refuse("Unknown command '%s'\n", name.c_str());
}

// The AMF0 commands that clients may send, by name. Main thread.
#pragma once

#include <string>

#include "app/command_args.h"
#include "core/connection.h"

// Handles one command with the connection's lock held: replies are pushed onto connection_out directly. False
// is a protocol error, after the handler's own line if it has one: the connection is dropped, nothing is
// answered.
using CommandHandler = bool (*)(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args);

// Runs the handler of a command; false as above, also for a name that nobody handles, after naming it.
[[nodiscard]] bool run_command(RTMPConnection& conn, const RTMP_Packet& request, const std::string& name,
                               CommandArgs args) REQUIRES(conn.mutex, MAIN_THREAD);

// --- connect.cpp
// Admits the client to an application and answers with the server's properties.
[[nodiscard]] bool handle_connect(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args)
    REQUIRES(conn.mutex, MAIN_THREAD);
// --- create_stream.cpp
[[nodiscard]] bool handle_create_stream(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args)
    REQUIRES(conn.mutex, MAIN_THREAD);
// --- publish.cpp
[[nodiscard]] bool handle_publish(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args)
    REQUIRES(conn.mutex, MAIN_THREAD);
// --- play.cpp
[[nodiscard]] bool handle_play(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args)
    REQUIRES(conn.mutex, MAIN_THREAD);
// --- acknowledge.cpp
// releaseStream, FCPublish, FCUnpublish: answered with "_result", without effect.
[[nodiscard]] bool handle_acknowledge(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args)
    REQUIRES(conn.mutex, MAIN_THREAD);

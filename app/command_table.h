// The AMF0 commands that clients may send, looked up by name. Main thread.
#pragma once

#include <string>

#include "app/command_args.h"
#include "core/connection.h"

// Handles one command. Called with the connection's lock held, so replies are pushed directly onto
// connection_out. Returns false if the connection is to be dropped without a reply: on an error, a refusal or
// deleteStream. Some handlers print one line before that.
using CommandHandler = bool (*)(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args);

// Runs the handler of a command and returns its result. If the name is unknown, prints it and returns false.
[[nodiscard]] bool run_command(RTMPConnection& conn, const RTMP_Packet& request, const std::string& name,
                               CommandArgs args) REQUIRES(conn.mutex, MAIN_THREAD);

// --- connect.cpp
// Admits the client to an application and replies with the server's properties.
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
// --- release_stream.cpp
// Handles releaseStream, FCPublish and FCUnpublish: replies with "_result" and does nothing else.
[[nodiscard]] bool reply_result_only(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args)
    REQUIRES(conn.mutex, MAIN_THREAD);

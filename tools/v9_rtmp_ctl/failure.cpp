#include "tools/v9_rtmp_ctl/failure.h"

#include <iostream>

#include "tools/v9_rtmp_ctl/text.h"

Failure describe_failure(comm_socket_v4_error error, const std::string& socket_path) {
    const std::string path = escape_untrusted(socket_path);
    switch (error) {
        case COMM_SOCKET_V4_NO_SOCKET:
            return {ExitCode::NOT_RUNNING, "the server is not running: there is no socket at " + path +
                                               ". Start v9_rtmp_server, or name its socket with --socket."};
        case COMM_SOCKET_V4_REFUSED:
            return {ExitCode::NOT_RUNNING, "the server is not running: nobody listens at " + path +
                                               ". Start v9_rtmp_server, which replaces what was left over "
                                               "there, or name its socket with --socket."};
        case COMM_SOCKET_V4_PERMISSION:
            return {ExitCode::PERMISSION,
                    "permission to use " + path +
                        " is missing. Run this as the server's user or group, or with sudo."};
        case COMM_SOCKET_V4_TIMEOUT:
            return {ExitCode::NO_REPLY,
                    "the server did not answer in time. Try again, or wait longer with "
                    "--timeout; if it stays silent, restart v9_rtmp_server."};
        case COMM_SOCKET_V4_BROKEN_FRAME:
            return {ExitCode::NO_REPLY,
                    "what came from " + path +
                        " is not a reply. Check that --socket names the control socket of "
                        "v9_rtmp_server, and that both are of the same version."};
        case COMM_SOCKET_V4_CLOSED:
            return {
                ExitCode::NO_REPLY,
                "the server closed the connection without an answer: it is stopping, or has too many control "
                "clients. Try again in a moment."};
        case COMM_SOCKET_V4_TOO_LARGE:
            return {ExitCode::USAGE,
                    "the request is too large, nothing was sent. Pass at most 64 arguments and 2 MiB."};
        case COMM_SOCKET_V4_BAD_ARGUMENT:
            return {ExitCode::USAGE,
                    path + " cannot be the path of a socket. Give --socket a path of 1 to 107 bytes."};
        case COMM_SOCKET_V4_OK:
        case COMM_SOCKET_V4_NO_MEMORY:
        case COMM_SOCKET_V4_SYSTEM:
            break;
    }
    return {ExitCode::NO_REPLY, "talking to " + path + " failed (" + comm_socket_v4_error_text(error) +
                                    "). Free memory or descriptors on this machine and try again."};
}

Failure refused_by_server(const std::string& message) {
    return {ExitCode::NEGATIVE_ANSWER, "the server refused: " + escape_untrusted(message) +
                                           ". Check that it is a v9_rtmp_server of this tool's version."};
}

Failure unreadable_reply(const std::string& what) {
    return {ExitCode::NO_REPLY,
            "the reply cannot be read: " + escape_untrusted(what) +
                ". Check that the server is of this tool's version; 'v9_rtmp_ctl raw' shows "
                "the reply as it is."};
}

ExitCode report(const Failure& failure) {
    std::cout.flush();
    std::cerr << "v9_rtmp_ctl: " << failure.message << std::endl;
    return failure.exit_code;
}

#include "tools/v9_rtmp_ctl/failure.h"

#include <comm_socket_v4.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <new>
#include <sstream>
#include <system_error>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

// The server polls its socket at this interval.
constexpr std::uint64_t SERVICE_US = 100000;

std::string seconds_text(std::uint64_t us) {
    std::ostringstream text;
    text << static_cast<double>(us) / 1e6 << " s";
    return text.str();
}

constexpr const char* SOCKET = "a socket";
constexpr const char* DIRECTORY = "a directory";

// Returns the kind of file at the path. Empty if there is none.
std::string find_kind(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return "";
    }
    if (S_ISSOCK(status.st_mode)) {
        return SOCKET;
    }
    return S_ISDIR(status.st_mode) ? DIRECTORY : S_ISREG(status.st_mode) ? "a file" : "a device or pipe";
}

}  // namespace

bool is_default_socket(const std::string& path) {
    if (path == DEFAULT_SOCKET_PATH) {
        return true;
    }
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(path, error);
    return !error && real == std::filesystem::weakly_canonical(DEFAULT_SOCKET_PATH, error);
}

Failure no_server(const std::string& socket_path, const std::optional<std::string>& listeners) {
    const std::string path = escape_untrusted(socket_path);
    const std::string kind = find_kind(socket_path);
    std::string fact = path + " is " + kind + " and not a socket";
    if (kind.empty()) {
        fact = "there is no socket at " + path;
    } else if (kind == SOCKET) {
        fact = "nothing listens at " + path;
    }
    if (!is_default_socket(socket_path)) {
        return {ExitCode::NOT_RUNNING, fact + ". v9_rtmp_server listens at " + DEFAULT_SOCKET_PATH +
                                           ": omit --socket and unset V9_RTMP_SOCKET, or set one of them to "
                                           "the path of the server's socket."};
    }
    if (listeners && !listeners->empty()) {
        return {ExitCode::NOT_RUNNING, fact + "; " + *listeners};
    }
    const std::string start = kind == DIRECTORY ? "remove the directory, then start v9_rtmp_server."
                                                : "start v9_rtmp_server, or name its socket with --socket.";
    return {ExitCode::NOT_RUNNING,
            fact +
                (listeners ? ". No server was found: "
                           : ". 'v9_rtmp_ctl hello' shows whether a server is still running; if none is, ") +
                start};
}

Failure no_answer(std::uint64_t silence_us) {
    const std::string what = "the server did not answer in time (" + seconds_text(silence_us) + "). ";
    if (silence_us < 2 * SERVICE_US) {
        return {
            ExitCode::NO_REPLY,
            what +
                "It polls its control socket ten times a second: wait longer, with --timeout 0.2 or more."};
    }
    return {ExitCode::NO_REPLY,
            what +
                "Try again, or wait longer with --timeout. If 'v9_rtmp_ctl hello' is not answered either, "
                "check whether the server's log is still being read, then restart v9_rtmp_server."};
}

Failure answer_too_long(std::uint64_t total_us) {
    return {ExitCode::NO_REPLY, "the server was still sending its answer after " + seconds_text(total_us) +
                                    ". It is running: wait longer with --timeout, ask for fewer connections "
                                    "with 'list --mode', or drop by id with --no-list."};
}

Failure describe_failure(comm_socket_v4_error error, const std::string& socket_path) {
    const std::string path = escape_untrusted(socket_path);
    switch (error) {
        case COMM_SOCKET_V4_NO_SOCKET:
        case COMM_SOCKET_V4_REFUSED:
            return no_server(socket_path);
        case COMM_SOCKET_V4_PERMISSION:
            return {ExitCode::PERMISSION, "no permission to use " + path +
                                              ". Run this as the server's user or group, or with sudo."};
        case COMM_SOCKET_V4_BROKEN_FRAME:
            return {ExitCode::NO_REPLY,
                    "the data received from " + path +
                        " is not a reply. Check that --socket names the control socket of "
                        "v9_rtmp_server, and that the server has the same version as this tool."};
        case COMM_SOCKET_V4_CLOSED:
            return {
                ExitCode::NO_REPLY,
                "the server closed the connection without an answer: it is stopping, or has too many control "
                "clients. Try again in a moment."};
        case COMM_SOCKET_V4_TOO_LARGE:
            return {ExitCode::USAGE,
                    "the request is too large; nothing was sent. Pass at most 64 arguments and 2 MiB."};
        case COMM_SOCKET_V4_BAD_ARGUMENT:
            return {ExitCode::USAGE,
                    path + " cannot be the path of a socket. Give --socket a path of 1 to 107 bytes."};
        case COMM_SOCKET_V4_OK:
        case COMM_SOCKET_V4_TIMEOUT:
        case COMM_SOCKET_V4_NO_MEMORY:
        case COMM_SOCKET_V4_SYSTEM:
            break;
    }
    return {ExitCode::NO_REPLY, "talking to " + path + " failed (" + comm_socket_v4_error_text(error) +
                                    "). Free memory or descriptors on this machine and try again."};
}

Failure refused_by_server(const std::string& message) {
    return {ExitCode::NEGATIVE_ANSWER,
            "the server refused: " + escape_untrusted(message) +
                ". Check that it is a v9_rtmp_server with the same version as this tool."};
}

Failure unreadable_reply(const std::string& what) {
    return {ExitCode::NO_REPLY,
            "the reply cannot be read: " + escape_untrusted(what) +
                ". Check that the server has the same version as this tool; 'v9_rtmp_ctl raw' "
                "shows the reply unchanged."};
}

Failure gave_up(const std::exception& error) {
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
        return {ExitCode::NO_REPLY, "there is not enough memory. Free some and try again."};
    }
    return {ExitCode::NO_REPLY, std::string("gave up: ") + error.what() +
                                    ". This is a bug: report it with the command line that shows it."};
}

ExitCode report(const Failure& failure) {
    std::cout.flush();
    std::cerr << "v9_rtmp_ctl: " << failure.message << std::endl;
    return failure.exit_code;
}

ExitCode worse_of(ExitCode a, ExitCode b) {
    return std::max(a, b);
}

// Why the tool gives up: the exit code for scripts, and a sentence or two for people that always says what to
// do next. A function that can fail returns std::optional<Failure>; nothing means success.
#pragma once

#include <comm_socket_v4.h>

#include <cstdint>
#include <optional>
#include <string>

// check has statuses of its own: those of Level in check_rules.h.
enum class ExitCode : int {
    DONE = 0,
    NEGATIVE_ANSWER = 1,  // the server answered with an error status, or nothing matched
    USAGE = 2,
    NOT_RUNNING = 3,  // no socket, or nothing listens at it
    PERMISSION = 4,
    NO_REPLY = 5,        // time-out, or a reply that cannot be read
    ANOTHER_CLIENT = 6,  // a drop was carried out that may have hit another client
};

constexpr const char* DEFAULT_SOCKET_PATH = "/var/run/v9_rtmp_server.socket";

// True for other names of that path as well: /var/run is usually a link to /run.
[[nodiscard]] bool is_default_socket(const std::string& path);

struct Failure {
    ExitCode exit_code = ExitCode::NO_REPLY;
    std::string message;  // without line end
};

// What an error of the control library means to the user. error is neither COMM_SOCKET_V4_OK nor
// COMM_SOCKET_V4_TIMEOUT. Looks at what is at the path.
[[nodiscard]] Failure describe_failure(comm_socket_v4_error error, const std::string& socket_path);

// No server answers at the path. Looks at what is there. listeners says what listens on the server's port
// all the same, empty for nothing; it counts only at the server's own path. Without it the advice is to look
// with hello.
[[nodiscard]] Failure no_server(const std::string& socket_path,
                                const std::optional<std::string>& listeners = std::nullopt);

// Nothing came for that long.
[[nodiscard]] Failure no_answer(std::uint64_t silence_us);

// The reply kept coming, and was not complete after that long.
[[nodiscard]] Failure answer_too_long(std::uint64_t total_us);

// For an error status in the reply to a command that this tool knows.
[[nodiscard]] Failure refused_by_server(const std::string& message);

// For a reply that is complete but does not say what this tool expects.
[[nodiscard]] Failure unreadable_reply(const std::string& what);

// Prints "v9_rtmp_ctl: MESSAGE" on standard error and returns the failure's exit code.
ExitCode report(const Failure& failure);

// The one of several results that the exit status tells: the higher one.
[[nodiscard]] ExitCode worse_of(ExitCode a, ExitCode b);

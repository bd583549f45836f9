// Why the tool gives up: an exit code for scripts, and a message for people, which always says what to do
// next. A function that can fail returns std::optional<Failure>; empty means success.
#pragma once

#include <comm_socket_v4.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

// check has its own statuses: see Level in check_rules.h.
enum class ExitCode : int {
    DONE = 0,
    NEGATIVE_ANSWER = 1,  // the server answered with an error status, or nothing matched
    USAGE = 2,
    NOT_RUNNING = 3,  // no socket, or nothing listens on it
    PERMISSION = 4,
    NO_REPLY = 5,        // timeout, or an unreadable reply
    ANOTHER_CLIENT = 6,  // another client may have been dropped
};

constexpr const char* DEFAULT_SOCKET_PATH = "/var/run/v9_rtmp_server.socket";

// Also true for other names of that path: /var/run is usually a link to /run.
[[nodiscard]] bool is_default_socket(const std::string& path);

struct Failure {
    ExitCode exit_code = ExitCode::NO_REPLY;
    std::string message;  // without a newline
};

// Explains an error of the control library to the user, after examining the path. error is neither
// COMM_SOCKET_V4_OK nor COMM_SOCKET_V4_TIMEOUT.
[[nodiscard]] Failure describe_failure(comm_socket_v4_error error, const std::string& socket_path);

// No server answers at the path; the message says what is there. listeners describes what listens on the
// server's port anyway, and is an empty string if nothing does. It is used only for the server's default
// path. If it is not given, the advice is to run hello.
[[nodiscard]] Failure no_server(const std::string& socket_path,
                                const std::optional<std::string>& listeners = std::nullopt);

// Nothing arrived for silence_us.
[[nodiscard]] Failure no_answer(std::uint64_t silence_us);

// The reply kept coming but was not complete after total_us.
[[nodiscard]] Failure answer_too_long(std::uint64_t total_us);

// For an error status in the reply to a known command.
[[nodiscard]] Failure refused_by_server(const std::string& message);

// For a reply that is complete but does not have the expected form.
[[nodiscard]] Failure unreadable_reply(const std::string& what);

// For an exception that ends the tool: lack of memory, or a bug.
[[nodiscard]] Failure gave_up(const std::exception& error);

// Prints "v9_rtmp_ctl: MESSAGE" on standard error and returns the failure's exit code.
ExitCode report(const Failure& failure);

// Returns the result that decides the exit status: the higher one.
[[nodiscard]] ExitCode worse_of(ExitCode a, ExitCode b);

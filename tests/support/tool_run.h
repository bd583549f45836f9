// Runs v9_rtmp_ctl as a script does: to its end, with its output and exit status.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/program_process.h"

std::string tool_path();

// Runs the tool with these arguments.
ProgramRun run_tool(std::vector<std::string> arguments, const ProgramOptions& options = {},
                    Milliseconds wait = DEFAULT_WAIT);

// A reply as "raw" prints it, without the line end.
struct RawReply {
    std::uint64_t status = 0;
    std::string command;
    std::string message;
    ControlPairs pairs = {};

    bool operator==(const RawReply&) const = default;
    // Returns the values of the pairs with this name, in order.
    std::vector<std::string> values(std::string_view name) const;
};
void PrintTo(const RawReply& reply, std::ostream* stream);

// Returns the line for this reply, of printable ASCII and TABs.
std::string raw_line(const RawReply& reply);

// Sends a command through the tool's "raw". Throws TestFailure unless it exits with 0, prints nothing on
// standard error, and prints exactly the line for the reply.
RawReply ask_raw(const std::string& command, const std::vector<std::string>& arguments = {});

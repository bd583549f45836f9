// v9_rtmp_ctl as a script runs it: to its end, with what it printed and its exit status.
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

// What "raw" prints of a reply, without the line end.
struct RawReply {
    std::uint64_t status = 0;
    std::string command;
    std::string message;
    ControlPairs pairs = {};

    bool operator==(const RawReply&) const = default;
    // The values of the pairs with this name, in their order.
    std::vector<std::string> values(std::string_view name) const;
};
void PrintTo(const RawReply& reply, std::ostream* stream);

// The one line that stands for this reply, made of printable ASCII and TABs.
std::string raw_line(const RawReply& reply);

// Sends a command through the tool's "raw". Throws TestFailure unless it exits with 0, says nothing on
// standard error, and prints exactly the line that stands for the reply it shows.
RawReply ask_raw(const std::string& command, const std::vector<std::string>& arguments = {});

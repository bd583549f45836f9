// Runs v9_rtmp_ctl as a script does: to its end, with its output and exit status.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/program_process.h"

std::string tool_path();

// Runs the tool with these arguments.
ProgramRun run_tool(std::vector<std::string> arguments, const ProgramOptions& options = {},
                    Milliseconds wait = DEFAULT_WAIT);

// Prints the reply as "raw" does, without the newline.
void PrintTo(const ControlReply& reply, std::ostream* stream);

// Sends a command through the tool's "raw". Throws TestFailure unless it exits with 0, prints nothing on
// standard error, and prints exactly the line for the reply.
ControlReply ask_raw(const std::string& command, const std::vector<std::string>& arguments = {});

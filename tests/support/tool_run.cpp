#include "tests/support/tool_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tests/support/test_failure.h"

std::string tool_path() {
    const char* const path = std::getenv("V9_CTL_PATH");
    return path != nullptr ? path : V9_CTL_PATH;
}

ProgramRun run_tool(std::vector<std::string> arguments, const ProgramOptions& options, Milliseconds wait) {
    arguments.insert(arguments.begin(), tool_path());
    return run_program(std::move(arguments), options, wait);
}

void PrintTo(const ControlReply& reply, std::ostream* stream) {
    const auto quoted = [](const std::string& text) { return nlohmann::json(text).dump(); };
    std::string pairs;
    for (const auto& [name, value] : reply.pairs) {
        pairs += (pairs.empty() ? "[" : ", [") + quoted(name) + "," + quoted(value) + "]";
    }
    *stream << R"({"status": )" << reply.status << R"(, "command": )" << quoted(reply.command)
            << R"(, "message": )" << quoted(reply.message) << R"(, "pairs": [)" << pairs << "]}";
}

ControlReply ask_raw(const std::string& command, const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {"raw", command};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const ProgramRun run = run_tool(words);
    if (run.end != ProgramEnd{0, 0} || !run.err.empty()) {
        throw TestFailure(testing::PrintToString(words) + " ended with " + run.end.text() + "\n" + run.out +
                          run.err);
    }
    const nlohmann::json json = nlohmann::json::parse(run.out);
    const ControlReply reply{json.at("status"), json.at("command"), json.at("message"),
                             json.at("pairs").get<ControlPairs>()};
    if (run.out != testing::PrintToString(reply) + "\n") {
        throw TestFailure(testing::PrintToString(words) + " printed " + run.out + "and not " +
                          testing::PrintToString(reply));
    }
    return reply;
}

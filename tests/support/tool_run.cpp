#include "tests/support/tool_run.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tests/support/test_failure.h"

namespace {

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '\t') {
            result += "\\t";
        } else if (c < 0x20 || c > 0x7E) {
            throw TestFailure("'" + text + "' is more than printable ASCII and TABs");
        } else {
            result += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        }
    }
    return result + '"';
}

std::string shown(const std::vector<std::string>& arguments) {
    std::string text = "v9_rtmp_ctl";
    for (const std::string& argument : arguments) {
        text += " '" + argument + "'";
    }
    return text;
}

RawReply parse_raw(const std::string& text) {
    const nlohmann::json json = nlohmann::json::parse(text);
    RawReply reply{json.at("status"), json.at("command"), json.at("message")};
    for (const nlohmann::json& pair : json.at("pairs")) {
        reply.pairs.emplace_back(pair.at(0), pair.at(1));
    }
    return reply;
}

}  // namespace

std::string tool_path() {
    if (const char* path = std::getenv("V9_CTL_PATH")) {
        return path;
    }
#ifdef V9_CTL_PATH
    return V9_CTL_PATH;
#else
    throw TestFailure("V9_CTL_PATH does not say where the tool's binary is");
#endif
}

ProgramRun run_tool(std::vector<std::string> arguments, const ProgramOptions& options, Milliseconds wait) {
    arguments.insert(arguments.begin(), tool_path());
    return run_program(std::move(arguments), options, wait);
}

std::vector<std::string> RawReply::values(std::string_view name) const {
    std::vector<std::string> found;
    for (const auto& [pair_name, value] : pairs) {
        if (pair_name == name) {
            found.push_back(value);
        }
    }
    return found;
}

void PrintTo(const RawReply& reply, std::ostream* stream) {
    *stream << raw_line(reply);
}

std::string raw_line(const RawReply& reply) {
    std::string pairs;
    for (const auto& [name, value] : reply.pairs) {
        pairs += (pairs.empty() ? "[" : ", [") + quoted(name) + "," + quoted(value) + "]";
    }
    return R"({"status": )" + std::to_string(reply.status) + R"(, "command": )" + quoted(reply.command) +
           R"(, "message": )" + quoted(reply.message) + R"(, "pairs": [)" + pairs + "]}";
}

RawReply ask_raw(const std::string& command, const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {"raw", command};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const ProgramRun run = run_tool(words);
    if (run.end != ProgramEnd{0, 0} || !run.err.empty()) {
        throw TestFailure(shown(words) + " ended with status " + std::to_string(run.end.status) +
                          ", signal " + std::to_string(run.end.signal) + "\n" + run.out + run.err);
    }
    RawReply reply;
    try {
        reply = parse_raw(run.out);
    } catch (const nlohmann::json::exception& error) {
        throw TestFailure(shown(words) + " printed " + run.out + ": " + error.what());
    }
    if (run.out != raw_line(reply) + "\n") {
        throw TestFailure(shown(words) + " printed " + run.out + "and not " + raw_line(reply));
    }
    return reply;
}

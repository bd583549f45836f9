#include "bench/soak/tool.h"

#include "tests/support/test_failure.h"
#include "tests/support/tool_run.h"

namespace {

nlohmann::json run_for_json(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--json");
    const ProgramRun run = run_tool(arguments);
    if (run.end != ProgramEnd{0, 0}) {
        throw TestFailure("v9_rtmp_ctl ended with status " + std::to_string(run.end.status) + ": " + run.err);
    }
    return nlohmann::json::parse(run.out);
}

}  // namespace

nlohmann::json list_connections() {
    return run_for_json({"list"}).at("connections");
}

nlohmann::json listed_connection(const std::string& address) {
    for (nlohmann::json& connection : list_connections()) {
        if (connection.at("address") == address) {
            return connection;
        }
    }
    throw TestFailure("v9_rtmp_ctl does not list the connection from " + address);
}

std::uint64_t drop_by_id(std::uint64_t id) {
    return run_for_json({"drop", "id", std::to_string(id)}).at("dropped");
}

std::uint64_t drop_by_stream(const std::string& name) {
    return run_for_json({"drop", "stream", name, "--force"}).at("dropped");
}

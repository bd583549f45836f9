// Loads the real server in its own namespaces, or one that is already running. Checks every frame that
// arrives and reports the costs. See --help and bench/README.md.
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>

#include "bench/load/options.h"
#include "bench/load/report.h"
#include "bench/load/runs.h"
#include "tests/support/private_namespaces.h"
#include "tests/support/test_failure.h"

namespace {

nlohmann::json run(const LoadOptions& load) {
    switch (load.mode) {
        case Mode::RELAY:
        case Mode::STORM:
        case Mode::FLOOR:
            return run_relay(load);
        case Mode::IDLE:
        case Mode::SLEEPERS:
            return run_idle(load);
        case Mode::CAPACITY:
            return run_capacity(load);
    }
    return {};
}

void write_json(const nlohmann::json& report, const std::string& path) {
    if (path == "-") {
        std::cout << report.dump(1) << std::endl;
        return;
    }
    std::ofstream file(path);
    file << report.dump(1) << std::endl;
    if (!file) {
        throw TestFailure(path + " cannot be written");
    }
}

}  // namespace

void say(const char* text) {
    std::fprintf(stderr, "relay_load: %s\n", text);
}

int main(int argc, char** argv) {
    const LoadOptions load = read_command_line(argc, argv);
    try {
        if (load.server_host.empty()) {
            enter_private_namespaces(argv);
        }
        const nlohmann::json report = run(load);
        if (load.json_path != "-") {
            print_report(report);
        }
        if (!load.json_path.empty()) {
            write_json(report, load.json_path);
        }
        return report["passed"].get<bool>() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "relay_load: %s\n", error.what());
        return 1;
    }
}

#include "bench/load/target.h"

namespace {

constexpr Milliseconds STOP_WAIT{30000};

}  // namespace

Target::Target(const LoadOptions& load) : given_pid(load.server_pid) {
    options.port = load.server_port;
    if (!load.server_host.empty()) {
        options.server = load.server_host;
    } else if (load.mode == Mode::FLOOR) {
        floor_sender.emplace(load);
    } else if (load.mode == Mode::SLEEPERS) {
        sleepers.emplace(load);
    } else {
        server.emplace();
    }
}

ClientOptions Target::client_options() const {
    return options;
}

pid_t Target::pid() const {
    if (server) {
        return server->pid();
    }
    if (floor_sender) {
        return floor_sender->pid();
    }
    return sleepers ? sleepers->pid() : given_pid;
}

void Target::stop() {
    if (server) {
        server->stop(STOP_WAIT);
    }
}

#include "tests/support/far_side.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <future>
#include <type_traits>
#include <vector>

#include "tests/support/program_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr const char* NEAR_ADDRESS = "192.0.2.1";

void run(std::vector<std::string> command) {
    const ProgramRun done = run_program(std::move(command));
    if (done.end != ProgramEnd{.status = 0}) {
        throw TestFailure("ip(8): " + done.err);
    }
}

int make_net() {
    return std::async(std::launch::async,
                      [] {
                          checked(unshare(CLONE_NEWNET), "unshare");
                          return checked(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC), "ns/net");
                      })
        .get();
}

// Runs the action on a thread in the other namespace.
template <typename Action>
std::invoke_result_t<Action> do_in(int net, Action action) {
    return std::async(std::launch::async,
                      [&] {
                          checked(setns(net, CLONE_NEWNET), "setns");
                          return action();
                      })
        .get();
}

}  // namespace

FarSide::FarSide() : net(make_net()) {
    run({"ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns",
         "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(net)});
    run({"ip", "address", "add", std::string(NEAR_ADDRESS) + "/24", "dev", "near"});
    run({"ip", "link", "set", "near", "up"});
    do_in(net, [] { run({"ip", "address", "add", "192.0.2.2/24", "dev", "far"}); });
    do_in(net, [] { run({"ip", "link", "set", "far", "up"}); });
}

FarSide::~FarSide() {
    (void)run_program({"ip", "link", "delete", "near"});
    close(net);
}

RtmpClient FarSide::player(const std::string& stream_name, ClientOptions options) const {
    options.server = NEAR_ADDRESS;
    return do_in(net, [&] { return playing_client(stream_name, options); });
}

void FarSide::cut_link() const {
    do_in(net, [] { run({"ip", "link", "set", "far", "down"}); });
}

#include "core/main_loop.h"

#include <unistd.h>

#include <atomic>

#include "control/control_server.h"
#include "core/connection_table.h"
#include "core/heap.h"
#include "core/listener.h"
#include "core/quit_signals.h"

namespace {

constexpr useconds_t PASS_SLEEP_US = 10000;

}  // namespace

int run_server() {
    if (!start_control_server()) {
        return 1;
    }
    if (!ensure_listener()) {
        return 1;  // intended: the control socket is left open.
    }
    install_quit_handler();

    while (quit_signals == 0) {
        usleep(PASS_SLEEP_US);
        server_idle();
        accept_connections();
        idle_all_connections();
        give_back_free_memory();
    }

    stop_control_server();
    server_shutdown();
    return 0;
}

// The commands of the control socket. Main thread only.
#pragma once

#include <comm_socket_v4.h>

#include "base/thread_roles.h"

// Executes a request and writes the reply into respkt, a response that already has the request's id. Returns
// false if no reply is to be sent, because the client asked for none. In that case even a known command is
// not executed.
[[nodiscard]] bool run_control_command(const comm_socket_v4_packet* request,
                                       comm_socket_v4_packet* respkt) ON_MAIN_THREAD;

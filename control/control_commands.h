// The commands of the control socket. Main thread only.
#pragma once

#include <comm_socket_v4.h>

#include "base/thread_roles.h"

// Carries out a request and writes its reply into respkt, which is a response with the request's id. False
// when nothing is to be sent: the sender wanted no reply. A known command with that wish is not carried out.
[[nodiscard]] bool run_control_command(const comm_socket_v4_packet* request,
                                       comm_socket_v4_packet* respkt) ON_MAIN_THREAD;

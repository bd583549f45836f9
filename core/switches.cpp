#include "core/switches.h"

bool opt_dbg_pkt = false;
bool opt_no_def_ack = false;

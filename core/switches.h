// The switches set on the command line. Written by the main thread before any other thread exists and
// constant afterwards, so every thread may read them.
#pragma once

extern bool opt_dbg_pkt;     // dump every message read and sent, except audio and video
extern bool opt_no_def_ack;  // send no acknowledgement before the client announces a window

// What the command line has switched on. Written by the main thread before any other thread exists, constant
// afterwards, so every thread may read it.
#pragma once

extern bool opt_dbg_pkt;     // dump every message read and sent, except audio and video
extern bool opt_no_def_ack;  // send no acknowledgement before the client announces a window

// The debug dump of a message: its header and its payload in hexadecimal, on standard error.
#pragma once

#include "rtmp/rtmp_packet.h"

// One header line, then, unless data is null, "  Data (N bytes)" and rows of 16 bytes in hexadecimal and as
// text. Written as one block. Any thread; a cancellation point.
void dump_packet(const RTMP_Packet& pkt);

// With the switch dbg-pkt, and unless it is audio or video: prints title, then the dump. An empty title prints nothing.
void dump_for_debugging(const RTMP_Packet& pkt, const char* title = "");

// The debug dump of a message: its header and its payload in hexadecimal, on standard error.
#pragma once

#include "rtmp/rtmp_packet.h"

// One header line, then, unless data is null, "  Data (N bytes)" and rows of 16 bytes in hexadecimal and as
// text. Written as one block. Any thread; a cancellation point.
void dump_packet(const RTMP_Packet& pkt);

// Whether the switch dbg-pkt is on: messages read and sent are dumped, except audio and video.
[[nodiscard]] bool packets_are_dumped();

// Dump a message if it is to be dumped: one that was read; one that is sent next, announced by a line.
void dump_read_packet(const RTMP_Packet& pkt);
void dump_packet_to_send(const RTMP_Packet& pkt);

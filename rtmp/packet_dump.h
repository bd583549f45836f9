// Dumps messages to standard error for debugging: the header, and the payload in hexadecimal.
#pragma once

#include "rtmp/rtmp_packet.h"

// Prints one header line and, unless data is null, "  Data (N bytes)" and rows of 16 bytes in hexadecimal and
// as text. Writes them as one block. Any thread; a cancellation point.
void dump_packet(const RTMP_Packet& pkt);

// Whether the switch dbg-pkt is on: messages that are read or sent are then dumped, except audio and video.
[[nodiscard]] bool packets_are_dumped();

// Dump a message if the switch is on and it is neither audio nor video. Call the first function after reading
// a message and the second before sending one; the second prints a line before the dump.
void dump_read_packet(const RTMP_Packet& pkt);
void dump_packet_to_send(const RTMP_Packet& pkt);

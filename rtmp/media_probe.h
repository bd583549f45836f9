// What the first bytes of an audio or video payload say. Pure; no codec is parsed any further than this.
#pragma once

#include "rtmp/rtmp_packet.h"

// An AAC payload (sound format 10) whose packet type is 0: the AudioSpecificConfig.
[[nodiscard]] bool is_aac_sequence_header(const RTMP_Packet& pkt);

// Either the extended video header (bit 7 of byte 0) with packet type 0, or an AVC payload (codec 7) whose
// packet type is 0. Only the codec nibble of the latter is looked at, not the frame type.
[[nodiscard]] bool is_video_sequence_header(const RTMP_Packet& pkt);

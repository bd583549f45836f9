// Recognises sequence headers by the first bytes of an audio or video payload. Pure; payloads are not parsed
// any further.
#pragma once

#include "rtmp/rtmp_packet.h"

// Whether the payload is AAC (sound format 10) with packet type 0, which is an AudioSpecificConfig.
[[nodiscard]] bool is_aac_sequence_header(const RTMP_Packet& pkt);

// Whether the payload has an extended video header (bit 7 of byte 0) with packet type 0, or is AVC (codec 7)
// with packet type 0. The frame type of AVC is not checked.
[[nodiscard]] bool is_video_sequence_header(const RTMP_Packet& pkt);

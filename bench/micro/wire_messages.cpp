#include "bench/micro/wire_messages.h"

#include "tests/support/chunk_bytes.h"
#include "tests/support/media_bytes.h"

std::string video_on_the_wire(std::size_t payload_bytes, std::uint32_t chunk_bytes) {
    return chunked(
        {.type = MSG_VIDEO, .payload = avc_inter_frame(1, payload_bytes), .csid = 6, .stream_id = 1},
        chunk_bytes);
}

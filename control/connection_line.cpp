#include "control/connection_line.h"

#include <atomic>

namespace {

std::string video_size(const StreamFormat& format) {
    if (format.video_width <= 0 || format.video_height <= 0) {
        return {};
    }
    return std::to_string(format.video_width) + "x" + std::to_string(format.video_height);
}

}  // namespace

void connection_line(RTMPConnection& conn, std::string* line) {
    *line = std::to_string(conn.conn_idx);
    line->append(1, '\t').append(conn.stream_name);
    line->append(1, '\t').append(conn.stream_mode);
    line->append(1, '\t').append(video_size(conn.stream_format));

    const ConnectionLock lock(conn, OTHER_UNLOCK_EXPRESSION);
    if (!lock.held()) {
        line->append("\t\t\t");
        return;
    }
    const auto total = [](const LinkDirection& direction) {
        return std::to_string(direction.bytes_total.load(std::memory_order_relaxed));
    };
    line->append(1, '\t').append(total(conn.conn_g_client));
    line->append(1, '\t').append(total(conn.conn_g_server));
    line->append(1, '\t').append(conn.address);
}

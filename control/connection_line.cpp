#include "control/connection_line.h"

namespace {

std::string video_size(const StreamFormat& format) {
    if (format.video_width <= 0 || format.video_height <= 0) {
        return {};
    }
    return std::to_string(format.video_width) + "x" + std::to_string(format.video_height);
}

}  // namespace

std::string connection_line(RTMPConnection& conn) {
    std::string line = std::to_string(conn.conn_idx);
    line += '\t' + conn.stream_name;
    line += '\t' + conn.stream_mode;
    line += '\t' + video_size(conn.stream_format);

    const ConnectionLock lock(conn, OTHER_UNLOCK_EXPRESSION);
    if (!lock.held()) {
        return line + "\t\t\t";
    }
    line += '\t' + std::to_string(conn.conn_g_client.bytes_total.load(std::memory_order_relaxed));
    line += '\t' + std::to_string(conn.conn_g_server.bytes_total.load(std::memory_order_relaxed));
    line += '\t' + conn.address;
    return line;
}

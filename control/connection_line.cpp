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

ConnectionLine connection_line(RTMPConnection& conn) {
    ConnectionLine line{std::to_string(conn.conn_idx) + '\t', conn.stream_name, {}};
    std::string& rest = line.after_name;
    rest.append(1, '\t').append(conn.stream_mode);
    rest.append(1, '\t').append(video_size(conn.stream_format));

    const ConnectionLock lock(conn, OTHER_UNLOCK_EXPRESSION);
    if (!lock.held()) {
        rest.append("\t\t\t");
        return line;
    }
    const auto total = [](const LinkDirection& direction) {
        return std::to_string(direction.bytes_total.load(std::memory_order_relaxed));
    };
    rest.append(1, '\t').append(total(conn.conn_g_client));
    rest.append(1, '\t').append(total(conn.conn_g_server));
    rest.append(1, '\t').append(conn.address);
    return line;
}

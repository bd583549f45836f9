#include "rtmp/read_ahead.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "base/check.h"

std::size_t ReadAhead::take(unsigned char* d, std::size_t c) {
    const std::size_t taken = std::min(c, end - begin);
    std::memcpy(d, bytes.data() + begin, taken);
    begin += taken;
    return taken;
}

bool ReadAhead::fill(int fd) {
    const std::size_t c = bytes.size();
    const ssize_t ret = recv(fd, bytes.data(), c, 0);
    if (ret <= 0) {
        return false;
    }
    CHECK((size_t)ret <= c);
    begin = 0;
    end = static_cast<std::size_t>(ret);
    return true;
}

#include "tools/v9_rtmp_ctl/state_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t MAX_FILE_BYTES = std::size_t{64} << 20U;
constexpr mode_t FILE_MODE = 0644;

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

std::optional<std::string> read_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 65536> buffer{};
    ssize_t length = 0;
    do {
        length = read(fd, buffer.data(), buffer.size());
        if (length > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(length));
        }
    } while ((length > 0 && text.size() <= MAX_FILE_BYTES) || (length < 0 && errno == EINTR));
    const int error = length > 0 ? EFBIG : errno;
    close(fd);
    errno = error;
    return length == 0 ? std::optional(std::move(text)) : std::nullopt;
}

bool replace_file(const std::string& path, const std::string& text) {
    // The rename would replace a device such as /dev/null as well.
    struct stat existing {};
    if (lstat(path.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode)) {
        errno = ENOTSUP;
        return false;
    }
    const std::string temporary = path + ".new";
    // Do not write into a file of that name that another program left or is still writing.
    unlink(temporary.c_str());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE);
    if (fd < 0) {
        return false;
    }
    bool done = write_all(fd, text);
    done = close(fd) == 0 && done;
    done = done && std::rename(temporary.c_str(), path.c_str()) == 0;
    if (!done) {
        const int error = errno;
        unlink(temporary.c_str());
        errno = error;
    }
    return done;
}

FileLock::FileLock(const std::string& path)
    : fd(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, FILE_MODE)),
      held_elsewhere(fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {}

FileLock::~FileLock() {
    if (fd >= 0) {
        close(fd);
    }
}

std::string boot_id() {
    std::string id = read_file("/proc/sys/kernel/random/boot_id").value_or("");
    while (!id.empty() && id.back() == '\n') {
        id.pop_back();
    }
    return id;
}

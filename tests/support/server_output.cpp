#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tests/support/server_process.h"

namespace {

constexpr std::size_t PIPE_READ_BYTES = 1 << 20;

}  // namespace

const CapturedOutput& ServerProcess::err() const {
    if (draining_stderr) {
        take_all(err_fd, captured_err);
    }
    return captured_err;
}

const CapturedOutput& ServerProcess::out() const {
    take_all(out_fd, captured_out);
    return captured_out;
}

std::vector<std::string> ServerProcess::lines_through(std::string_view last_line, LineMark from,
                                                      Milliseconds wait) const {
    const LineMark to = wait_for_line(last_line, from, wait);
    std::vector<std::string> lines = lines_since(from);
    lines.resize(to - from);
    return lines;
}

// False at the end of the stream.
bool ServerProcess::take(int fd, CapturedOutput& captured) const {
    const std::lock_guard guard(pipe_mutex);
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, 0) != 1) {
        return true;
    }
    pipe_buffer.resize(PIPE_READ_BYTES);
    const ssize_t count = read(fd, pipe_buffer.data(), pipe_buffer.size());
    if (count > 0) {
        captured.append(std::string_view(pipe_buffer).substr(0, static_cast<std::size_t>(count)));
        return true;
    }
    if (count < 0 && errno == EINTR) {
        return true;
    }
    captured.set_ended();
    return false;
}

void ServerProcess::take_all(int fd, CapturedOutput& captured) const {
    pollfd entry{fd, POLLIN, 0};
    while (poll(&entry, 1, 0) == 1 && take(fd, captured)) {
    }
    // The pump may have read the pipe but not stored the bytes yet.
    const std::lock_guard guard(pipe_mutex);
}

void ServerProcess::pump() {
    bool err_open = true;
    bool out_open = true;
    while (err_open || out_open) {
        std::array<pollfd, 3> fds{{{wake_fd, POLLIN, 0},
                                   {err_open && draining_stderr ? err_fd : -1, POLLIN, 0},
                                   {out_open ? out_fd : -1, POLLIN, 0}}};
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) {
            break;
        }
        if (fds[0].revents != 0) {
            eventfd_t ignored = 0;
            (void)eventfd_read(wake_fd, &ignored);
            // Another process may hold the pipe's other end open, but everything the server wrote has arrived
            // by now.
            if (pump_may_end && poll(&fds[1], 2, 0) == 0) {
                break;
            }
            continue;
        }
        if (fds[1].revents != 0) {
            err_open = take(err_fd, captured_err);
        }
        if (fds[2].revents != 0) {
            out_open = take(out_fd, captured_out);
        }
    }
    captured_err.set_ended();
    captured_out.set_ended();
}

void ServerProcess::end_pump() {
    pump_may_end = true;
    resume_draining_stderr();
    pump_thread.join();
}

void ServerProcess::pause_draining_stderr() {
    draining_stderr = false;
    (void)eventfd_write(wake_fd, 1);
}

void ServerProcess::resume_draining_stderr() {
    draining_stderr = true;
    (void)eventfd_write(wake_fd, 1);
}

#include "tests/support/output_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t PIPE_READ_BYTES = 1 << 20;
// How long a stop, or draining again, may wait for the reading thread.
constexpr int READ_SLICE_MS = 10;

}  // namespace

OutputPipe::OutputPipe(std::string stream_name) : output(std::move(stream_name)) {
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    read_fd = ends[0];
    write_fd = ends[1];
    thread = std::jthread([this](const std::stop_token& stop_requested) { pump(stop_requested); });
}

OutputPipe::~OutputPipe() {
    close_write_end();
    resume_draining();
    thread.request_stop();
    thread.join();
    close(read_fd);
}

void OutputPipe::close_write_end() {
    if (write_fd >= 0) {
        close(write_fd);
    }
    write_fd = -1;
}

const CapturedOutput& OutputPipe::captured() const {
    while (take()) {
    }
    return output;
}

// Whether there was something to read.
bool OutputPipe::take() const {
    const std::lock_guard guard(mutex);
    pollfd entry{read_fd, POLLIN, 0};
    if (at_end || !draining || poll(&entry, 1, 0) != 1) {
        return false;
    }
    buffer.resize(PIPE_READ_BYTES);
    const ssize_t count = read(read_fd, buffer.data(), buffer.size());
    if (count > 0) {
        output.append(std::string_view(buffer).substr(0, static_cast<std::size_t>(count)));
    } else {
        at_end = true;
        output.set_ended();
    }
    return count > 0;
}

void OutputPipe::pump(const std::stop_token& stop_requested) {
    while (!at_end) {
        pollfd entry{draining ? read_fd : -1, POLLIN, 0};
        (void)poll(&entry, 1, READ_SLICE_MS);
        if (!take() && stop_requested.stop_requested()) {
            break;
        }
    }
}

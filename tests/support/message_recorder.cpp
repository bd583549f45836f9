#include "tests/support/message_recorder.h"

#include <optional>

#include "tests/support/test_failure.h"

namespace {

// How long a stop may wait for the reading thread.
constexpr Milliseconds READ_SLICE{20};

}  // namespace

MessageRecorder::MessageRecorder(RtmpClient& read_from)
    : client(read_from), thread([this](const std::stop_token& requested) { read_all(requested); }) {}

std::vector<RtmpMessage> MessageRecorder::messages() const {
    const std::lock_guard guard(mutex);
    return received;
}

void MessageRecorder::wait_for(std::size_t times, Milliseconds wait) const {
    std::unique_lock guard(mutex);
    changed.wait_for(guard, wait, [&] { return received.size() >= times || !reason_of_end.empty(); });
    if (received.size() < times) {
        throw TestFailure("wanted " + std::to_string(times) + " messages, got " +
                          std::to_string(received.size()) + "; " + reason_of_end);
    }
}

std::string MessageRecorder::end() const {
    const std::lock_guard guard(mutex);
    return reason_of_end;
}

void MessageRecorder::stop() {
    thread.request_stop();
    if (thread.joinable()) {
        thread.join();
    }
}

void MessageRecorder::read_all(const std::stop_token& stop_requested) {
    std::string reason;
    while (!stop_requested.stop_requested() && reason.empty()) {
        std::optional<RtmpMessage> message;
        try {
            message = client.try_read_message(READ_SLICE);
            reason = !message && client.closed_by_server() ? "the server closed the connection" : "";
        } catch (const TestFailure& error) {
            reason = error.what();
        }
        const std::lock_guard guard(mutex);
        reason_of_end = reason;
        if (message && message->type != MSG_ACKNOWLEDGEMENT) {
            received.push_back(std::move(*message));
        }
        changed.notify_all();
    }
}

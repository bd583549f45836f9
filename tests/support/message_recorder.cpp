#include "tests/support/message_recorder.h"

#include <algorithm>
#include <optional>

#include "tests/support/test_failure.h"

namespace {

// How long a stop may wait for the reading thread.
constexpr Milliseconds READ_SLICE{20};

}  // namespace

MessageRecorder::MessageRecorder(RtmpClient& read_from, bool keep_acks)
    : client(read_from), keep_acknowledgements(keep_acks), thread([this] { read_all(); }) {}

MessageRecorder::~MessageRecorder() {
    stop();
}

std::vector<RtmpMessage> MessageRecorder::messages() const {
    const std::lock_guard guard(mutex);
    return received;
}

std::vector<RtmpMessage> MessageRecorder::messages_of_type(std::uint8_t type) const {
    const std::lock_guard guard(mutex);
    std::vector<RtmpMessage> result;
    std::copy_if(received.begin(), received.end(), std::back_inserter(result),
                 [type](const RtmpMessage& message) { return message.type == type; });
    return result;
}

std::size_t MessageRecorder::count(const Wanted& wanted) const {
    const std::lock_guard guard(mutex);
    return static_cast<std::size_t>(std::count_if(received.begin(), received.end(), wanted));
}

void MessageRecorder::wait_for(std::size_t times, const Wanted& wanted, Milliseconds wait) const {
    const TimePoint deadline = SteadyClock::now() + wait;
    std::unique_lock guard(mutex);
    std::size_t next = 0;
    std::size_t found = 0;
    const auto enough = [&] {
        for (; next < received.size(); ++next) {
            found += wanted(received[next]) ? 1 : 0;
        }
        return found >= times;
    };
    changed.wait_until(guard, deadline, [&] { return enough() || connection_closed || !problem.empty(); });
    if (!enough()) {
        throw TestFailure("wanted " + std::to_string(times) + " messages, got " + std::to_string(found) +
                          (connection_closed ? "; the server closed the connection" : "") +
                          (problem.empty() ? "" : "; " + problem));
    }
}

void MessageRecorder::wait_for_type(std::size_t times, std::uint8_t type, Milliseconds wait) const {
    wait_for(
        times, [type](const RtmpMessage& message) { return message.type == type; }, wait);
}

void MessageRecorder::wait_for_close(Milliseconds wait) const {
    std::unique_lock guard(mutex);
    if (!changed.wait_for(guard, wait, [&] { return connection_closed; })) {
        throw TestFailure(std::string("the server did not close the connection") +
                          (problem.empty() ? "" : "; " + problem));
    }
}

bool MessageRecorder::closed() const {
    const std::lock_guard guard(mutex);
    return connection_closed;
}

std::string MessageRecorder::error() const {
    const std::lock_guard guard(mutex);
    return problem;
}

void MessageRecorder::stop() {
    {
        const std::lock_guard guard(mutex);
        stop_requested = true;
    }
    if (thread.joinable()) {
        thread.join();
    }
}

void MessageRecorder::read_all() {
    while (true) {
        std::optional<RtmpMessage> message;
        std::string failure;
        try {
            message = client.try_read_message(READ_SLICE);
        } catch (const TestFailure& error) {
            failure = error.what();
        }
        {
            const std::lock_guard guard(mutex);
            if (message) {
                if (keep_acknowledgements || message->type != MSG_ACKNOWLEDGEMENT) {
                    received.push_back(std::move(*message));
                }
            } else {
                problem = failure;
                connection_closed = client.closed_by_server();
            }
            if (stop_requested || connection_closed || !problem.empty()) {
                changed.notify_all();
                return;
            }
        }
        changed.notify_all();
    }
}

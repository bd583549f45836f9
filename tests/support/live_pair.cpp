#include "tests/support/live_pair.h"

#include <algorithm>
#include <exception>

#include "tests/support/media_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t FIRST_MESSAGES = 3;
constexpr std::uint32_t FIRST_TIMESTAMP_MS = 1000;

bool is_video(const RtmpMessage& message) {
    return message.type == MSG_VIDEO;
}

}  // namespace

LivePair::LivePair(const LiveOptions& live_options)
    : options(live_options),
      player(playing_client(options.stream_name)),
      publisher(publishing_client(options.stream_name)),
      recorder(player),
      first_due(SteadyClock::now()),
      sender([this] { send_all(); }) {
    try {
        wait_for_more(FIRST_MESSAGES);
    } catch (...) {
        stop_requested = true;
        sender.join();
        throw;
    }
}

LivePair::~LivePair() {
    stop_requested = true;
    if (sender.joinable()) {
        sender.join();
    }
}

void LivePair::send_all() {
    try {
        while (!stop_requested) {
            const std::uint32_t message_idx = sent;
            const Milliseconds media_time = options.interval * message_idx;
            std::this_thread::sleep_until(due(message_idx));
            publisher.send_video(FIRST_TIMESTAMP_MS + static_cast<std::uint32_t>(media_time.count()),
                                 avc_inter_frame(message_idx, options.message_bytes));
            ++sent;
        }
    } catch (const std::exception& error) {
        sending_failure = error.what();
    }
}

void LivePair::finish() {
    stop_requested = true;
    sender.join();
    if (!sending_failure.empty()) {
        throw TestFailure("the publisher beside the test could not send: " + sending_failure);
    }
    recorder.wait_for(sent, is_video);
    recorder.stop();
    if (!recorder.error().empty() || recorder.closed()) {
        throw TestFailure("the player beside the test was disturbed: " + recorder.error());
    }
    const std::vector<RtmpMessage> received = recorder.messages_of_type(MSG_VIDEO);
    if (received.size() != sent) {
        throw TestFailure("the player beside the test received " + std::to_string(received.size()) +
                          " messages of " + std::to_string(sent));
    }
    for (std::uint32_t i = 0; i < received.size(); ++i) {
        if (received[i].payload != avc_inter_frame(i, options.message_bytes)) {
            throw TestFailure("message " + std::to_string(i) + " of the stream beside the test is not what " +
                              "was published");
        }
    }
}

Milliseconds LivePair::longest_pause() const {
    const std::vector<RtmpMessage> received = recorder.messages_of_type(MSG_VIDEO);
    SteadyClock::duration longest{0};
    for (std::size_t i = 1; i < received.size(); ++i) {
        longest = std::max(longest, received[i].arrival - received[i - 1].arrival);
    }
    return std::chrono::ceil<Milliseconds>(longest);
}

Milliseconds LivePair::longest_delay() const {
    const std::vector<RtmpMessage> received = recorder.messages_of_type(MSG_VIDEO);
    SteadyClock::duration longest{0};
    for (std::uint32_t i = 0; i < received.size(); ++i) {
        longest = std::max(longest, received[i].arrival - due(i));
    }
    return std::chrono::ceil<Milliseconds>(longest);
}

void LivePair::wait_for_more(std::size_t times) const {
    recorder.wait_for(recorder.count(is_video) + times, is_video);
}

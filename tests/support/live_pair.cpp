#include "tests/support/live_pair.h"

#include <algorithm>
#include <thread>

#include "tests/support/media_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t FIRST_MESSAGES = 3;
constexpr std::uint32_t FIRST_TIMESTAMP_MS = 1000;

}  // namespace

LivePair::LivePair(const LiveOptions& live_options)
    : options(live_options),
      player(playing_client(options.stream_name)),
      publisher(publishing_client(options.stream_name)),
      recorder(player),
      sender([this] { send_one(); }) {
    recorder.wait_for(FIRST_MESSAGES);
}

void LivePair::send_one() {
    const Milliseconds media_time = options.interval * sent.load();
    std::this_thread::sleep_until(due(sent));
    publisher.send_video(FIRST_TIMESTAMP_MS + static_cast<std::uint32_t>(media_time.count()),
                         avc_inter_frame(sent, options.message_bytes));
    ++sent;
}

void LivePair::finish() {
    sender.stop();
    if (!sender.failure().empty()) {
        throw TestFailure("the publisher beside the test could not send: " + sender.failure());
    }
    recorder.wait_for(sent);
    recorder.stop();
    if (!recorder.end().empty()) {
        throw TestFailure("the player beside the test was disturbed: " + recorder.end());
    }
    const std::vector<RtmpMessage> received = recorder.messages();
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

Milliseconds LivePair::lateness() const {
    SteadyClock::duration longest = QUIET_LATENCY;
    std::uint32_t message_idx = 0;
    for (const RtmpMessage& message : recorder.messages()) {
        longest = std::max(longest, message.arrival - due(message_idx));
        ++message_idx;
    }
    return std::chrono::ceil<Milliseconds>(longest) - QUIET_LATENCY;
}

Milliseconds LivePair::longest_pause() const {
    const std::vector<RtmpMessage> received = recorder.messages();
    SteadyClock::duration longest{0};
    for (std::size_t i = 1; i < received.size(); ++i) {
        longest = std::max(longest, received[i].arrival - received[i - 1].arrival);
    }
    return std::chrono::ceil<Milliseconds>(longest);
}

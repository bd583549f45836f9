#include "tests/support/timed_stream.h"

#include <algorithm>
#include <functional>
#include <future>
#include <utility>

#include "tests/support/media_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t MESSAGE_BYTES = 20000;
constexpr Milliseconds MESSAGE_INTERVAL{40};
// The latency of an undisturbed message: up to 10 ms until the main loop wakes up, and up to 50 ms until the
// player's writer does. Only time beyond this counts as late.
constexpr Milliseconds QUIET_LATENCY{60};
constexpr std::size_t CONNECTED_SIDE_BY_SIDE = 8;

}  // namespace

TimedStream::TimedStream(const std::string& name)
    : player(playing_client(name)), publisher(publishing_client(name)), recorder(player) {
    publisher.set_chunk_size(65536);
    player.set_chunk_size(65536);
}

Milliseconds TimedStream::run_for(Milliseconds duration) {
    const TimePoint end = SteadyClock::now() + duration;
    return run_while([end] { return SteadyClock::now() < end; });
}

Milliseconds TimedStream::run_while(const std::function<bool()>& goes_on) {
    const std::size_t first = send_times.size();
    while (goes_on()) {
        std::this_thread::sleep_until(start + MESSAGE_INTERVAL * send_times.size());
        const auto idx = static_cast<std::uint32_t>(send_times.size());
        const Bytes payload = avc_inter_frame(idx, MESSAGE_BYTES);
        const auto media_time = static_cast<std::uint32_t>((MESSAGE_INTERVAL * send_times.size()).count());
        send_times.push_back(SteadyClock::now());
        publisher.send_video(1000 + media_time, payload);
    }
    recorder.wait_for_type(send_times.size(), MSG_VIDEO);
    return longest_since(first);
}

Milliseconds TimedStream::longest_since(std::size_t first) const {
    const std::vector<RtmpMessage> received = recorder.messages_of_type(MSG_VIDEO);
    if (received.size() != send_times.size()) {
        throw TestFailure("the player has more messages than were sent");
    }
    SteadyClock::duration longest{0};
    for (std::size_t i = first; i < received.size(); ++i) {
        if (received[i].payload != avc_inter_frame(static_cast<std::uint32_t>(i), MESSAGE_BYTES)) {
            throw TestFailure("message " + std::to_string(i) + " is not what was published");
        }
        longest = std::max(longest, received[i].arrival - send_times[i]);
    }
    return std::chrono::ceil<Milliseconds>(longest);
}

Milliseconds lateness(Milliseconds latency) {
    return std::max(latency - QUIET_LATENCY, Milliseconds{0});
}

std::string long_stream_name(std::size_t idx, std::size_t name_bytes) {
    const std::string number = std::to_string(idx);
    return number + std::string(name_bytes - number.size(), 'n');
}

RtmpClient publisher_with_long_name(const std::string& name, const ClientOptions& options) {
    RtmpClient client = connected_client("ombrex-live", options);
    client.set_chunk_size(1 << 20);
    client.send_command(amf_string("publish") + amf_number(2) + amf_null() + amf_long_string(name) +
                        amf_string("live"));
    (void)client.round_trip();
    return client;
}

std::vector<RtmpClient> publishers_with_long_names(std::size_t count, std::size_t name_bytes) {
    std::vector<std::future<std::vector<RtmpClient>>> parts;
    for (std::size_t part = 0; part < CONNECTED_SIDE_BY_SIDE; ++part) {
        parts.push_back(std::async(std::launch::async, [=] {
            std::vector<RtmpClient> clients;
            for (std::size_t i = part; i < count; i += CONNECTED_SIDE_BY_SIDE) {
                clients.push_back(publisher_with_long_name(long_stream_name(i, name_bytes)));
            }
            return clients;
        }));
    }
    std::vector<RtmpClient> clients;
    for (auto& part : parts) {
        std::ranges::move(part.get(), std::back_inserter(clients));
    }
    return clients;
}

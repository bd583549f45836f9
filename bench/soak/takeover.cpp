#include "bench/soak/takeover.h"

#include <string>

#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/test_failure.h"

namespace {

const std::string CONTESTED_STREAM = "soak_takeover";
constexpr std::uint32_t FRAMES = 5;
constexpr std::uint32_t FRAME_INTERVAL_MS = 40;
// A publisher that has sent nothing for 2.5 s may be replaced.
constexpr Milliseconds SILENCE{2800};

void send_frames(Actor& self, RtmpClient& publisher, std::uint32_t seed) {
    publisher.send_video(1, avc_header());
    for (std::uint32_t i = 1; i <= FRAMES; ++i) {
        self.rest(Milliseconds{FRAME_INTERVAL_MS});
        publisher.send_video(1 + i * FRAME_INTERVAL_MS, avc_key_frame(seed + i));
    }
}

void expect_frames(RtmpClient& player, std::uint32_t seed) {
    for (std::uint32_t i = 1; i <= FRAMES;) {
        const RtmpMessage message = player.expect_message(MSG_VIDEO);
        if (message.payload == avc_header()) {
            continue;
        }
        if (message.payload != avc_key_frame(seed + i)) {
            throw TestFailure("frame " + std::to_string(i) + " is not what its publisher sent");
        }
        ++i;
    }
}

}  // namespace

void take_over(Actor& self, Journal& journal) {
    constexpr std::uint32_t FIRST_SEED = 0;
    constexpr std::uint32_t SECOND_SEED = 1000;
    RtmpClient first = publishing_client(CONTESTED_STREAM);
    RtmpClient early_player = playing_client(CONTESTED_STREAM);
    send_frames(self, first, FIRST_SEED);
    expect_frames(early_player, FIRST_SEED);
    RtmpClient second = publishing_client(CONTESTED_STREAM);
    if (!self.rest(SILENCE)) {
        return;
    }
    RtmpClient late_player = playing_client(CONTESTED_STREAM);
    send_frames(self, second, SECOND_SEED);
    first.expect_closed();
    early_player.expect_closed();
    expect_frames(late_player, SECOND_SEED);
    journal.count("takeovers");
}

#include "bench/scale/crowd.h"

#include <cstdio>
#include <utility>

#include "bench/stamped_media.h"
#include "tests/support/test_failure.h"

namespace {

// A player gives up a connection on which nothing arrives for this time, as real players do.
constexpr Milliseconds SILENCE{5000};
constexpr Milliseconds LOOK{200};
constexpr Milliseconds PUBLISHER_PAUSE{500};
constexpr std::uint32_t CHUNK_BYTES = 4096;
constexpr std::uint64_t PLAYING_WITHIN_US = 1000000;
// A gap of this size or more comes from a change of publishers and is not counted as missing.
constexpr std::uint32_t LARGEST_GAP = 1000;

}  // namespace

void print_line(const nlohmann::json& object) {
    const std::string line = object.dump() + "\n";
    (void)std::fwrite(line.data(), 1, line.size(), stdout);
    (void)std::fflush(stdout);
}

void print_event(const std::string& who, const std::string& what, nlohmann::json more) {
    more.update({{"at", static_cast<double>(now_us()) / 1e6}, {"who", who}, {"event", what}});
    print_line(more);
}

void Repeater::start(const std::string& name, Milliseconds pause_between) {
    who = name;
    pause = pause_between;
    thread = std::thread([this] { run(); });
}

void Repeater::stop() {
    stop_requested = true;
    if (thread.joinable()) {
        thread.join();
    }
}

void Repeater::run() {
    while (!stop_requested) {
        try {
            step();
        } catch (const TestFailure& failure) {
            print_event(who, "failed", {{"why", failure.what()}});
        }
        (void)holds_within(
            pause, [this] { return is_stopped(); }, Milliseconds{20});
    }
}

FilmPublisher::FilmPublisher(const std::string& name, std::string stream, const ClientOptions& options,
                             const Film& film_to_send, SentFrames& sent_frames, std::uint32_t skip_every)
    : stream_name(std::move(stream)),
      client_options(options),
      film(film_to_send),
      sent(sent_frames),
      skip_frame(skip_every) {
    start(name, PUBLISHER_PAUSE);
}

void FilmPublisher::step() {
    RtmpClient client = connected_client("ombrex-live", client_options);
    (void)client.create_stream();
    (void)client.publish(stream_name);
    print_event(who, "publishes");
    client.set_chunk_size(CHUNK_BYTES);
    client.send_metadata(amf_object({{"width", amf_number(320)},
                                     {"height", amf_number(240)},
                                     {"framerate", amf_number(25)},
                                     {"videocodecid", amf_number(7)},
                                     {"audiocodecid", amf_number(10)}}));
    send_frames(client);
}

void FilmPublisher::send_frames(RtmpClient& client) {
    const auto send = [&client](const FilmFrame& frame, std::uint32_t timestamp_ms) {
        if (frame.type == MSG_AUDIO) {
            client.send_audio(timestamp_ms, frame.payload);
        } else {
            client.send_video(timestamp_ms, frame.payload);
        }
    };
    for (const FilmFrame& header : film.headers) {
        send(header, 0);
    }
    const TimePoint begin = SteadyClock::now();
    std::map<std::uint8_t, std::uint32_t> sequence;
    for (std::uint32_t begin_ms = 0;; begin_ms += film.length_ms) {
        for (const FilmFrame& frame : film.frames) {
            const std::uint32_t timestamp_ms = begin_ms + frame.due_ms;
            std::this_thread::sleep_until(begin + Milliseconds{timestamp_ms});
            if (is_stopped()) {
                return;
            }
            const std::uint32_t number = sequence[frame.type]++;
            if (skip_frame == 0 || number % skip_frame != skip_frame - 1) {
                sent.note(frame.payload, {number, now_us()});
                send(frame, timestamp_ms);
            }
            while (client.try_read_message(Milliseconds{0})) {
            }
            if (client.closed_by_server()) {
                throw TestFailure("the server has closed the connection");
            }
        }
    }
}

void CrowdTally::merge(const CrowdTally& other) {
    frames += other.frames;
    missing += other.missing;
    strange += other.strange;
    lateness.merge(other.lateness);
}

FilmPlayer::FilmPlayer(const std::string& name, std::string stream, const ClientOptions& options,
                       const SentFrames& sent_frames, Milliseconds pause_between)
    : stream_name(std::move(stream)), client_options(options), sent(sent_frames) {
    start(name, pause_between);
}

bool FilmPlayer::is_playing() const {
    return now_us() - last_frame_us < PLAYING_WITHIN_US;
}

CrowdTally FilmPlayer::take_tally() {
    const std::lock_guard guard(mutex);
    return std::exchange(tally, {});
}

void FilmPlayer::step() {
    RtmpClient client = handshaken_client(client_options);
    client.set_chunk_size(CHUNK_BYTES);
    client.send_connect("ombrex-output");
    client.send_create_stream();
    client.send_play(stream_name);
    std::map<std::uint8_t, std::uint32_t> next;
    TimePoint deadline = SteadyClock::now() + SILENCE;
    while (!is_stopped() && SteadyClock::now() < deadline && !client.closed_by_server()) {
        const std::optional<RtmpMessage> message = client.try_read_message(LOOK);
        if (message && is_frame(message->payload) &&
            (message->type == MSG_AUDIO || message->type == MSG_VIDEO)) {
            if (next.empty()) {
                const std::uint64_t last_us = last_frame_us;
                print_event(
                    who, "plays",
                    {{"silence_s", last_us == 0 ? 0 : static_cast<double>(now_us() - last_us) / 1e6}});
            }
            take_frame(*message, next);
            deadline = SteadyClock::now() + SILENCE;
        }
    }
    if (!is_stopped()) {
        const bool is_closed = client.closed_by_server();
        print_event(who, next.empty() ? "failed" : "lost",
                    {{"why", is_closed ? "closed by the server" : "silence"}});
    }
}

void FilmPlayer::take_frame(const RtmpMessage& message, std::map<std::uint8_t, std::uint32_t>& next) {
    const std::uint64_t arrived_us = now_us();
    const std::optional<SentFrame> frame = sent.find(message.payload);
    last_frame_us = arrived_us;
    const std::lock_guard guard(mutex);
    ++tally.frames;
    if (!frame) {
        ++tally.strange;
        next[message.type] = 0;
        return;
    }
    tally.lateness.add(arrived_us - frame->sent_us);
    const auto expected = next.find(message.type);
    if (expected != next.end() && frame->sequence - expected->second < LARGEST_GAP) {
        tally.missing += frame->sequence - expected->second;
    }
    next[message.type] = frame->sequence + 1;
}

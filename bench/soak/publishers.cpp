#include "bench/soak/publishers.h"

#include <algorithm>

#include "bench/stamped_media.h"
#include "tests/support/media_bytes.h"

namespace {

constexpr std::uint32_t FRAMES_PER_SECOND = 30;
constexpr std::uint32_t FRAMES_PER_KEY_FRAME = 60;
constexpr std::size_t KEY_FRAME_IN_INTER_FRAMES = 8;
constexpr std::uint32_t AUDIO_SAMPLES_PER_SECOND = 44100;
constexpr std::uint32_t SAMPLES_PER_AUDIO_FRAME = 1024;
constexpr std::size_t AUDIO_FRAME_BYTES = 372;
constexpr unsigned AUDIO_KBIT_PER_SECOND = 128;
constexpr std::size_t BYTES_PER_KBIT = 125;
// The server takes 0 for a clock that has not begun.
constexpr std::uint32_t FIRST_TIMESTAMP_MS = 1;
// Every other publisher sends larger chunks than the protocol's default, as encoders differ.
constexpr std::uint32_t LARGE_CHUNK_BYTES = 4096;
constexpr Milliseconds BETWEEN_STREAMS{261};

std::uint32_t audio_due_ms(std::uint32_t frame) {
    return static_cast<std::uint32_t>(std::uint64_t{frame} * SAMPLES_PER_AUDIO_FRAME * 1000 /
                                      AUDIO_SAMPLES_PER_SECOND);
}

std::uint32_t video_due_ms(std::uint32_t frame) {
    return static_cast<std::uint32_t>(std::uint64_t{frame} * 1000 / FRAMES_PER_SECOND);
}

}  // namespace

std::string stream_name(std::size_t stream_idx) {
    return "soak_" + std::to_string(stream_idx);
}

FrameSchedule::FrameSchedule(unsigned kbit_per_second)
    : inter_bytes((std::max(kbit_per_second, 2 * AUDIO_KBIT_PER_SECOND) - AUDIO_KBIT_PER_SECOND) *
                  BYTES_PER_KBIT * FRAMES_PER_KEY_FRAME / FRAMES_PER_SECOND /
                  (FRAMES_PER_KEY_FRAME - 1 + KEY_FRAME_IN_INTER_FRAMES)) {}

FrameSchedule::Frame FrameSchedule::next() {
    const std::uint32_t audio_ms = audio_due_ms(audio_frames);
    const std::uint32_t video_ms = video_due_ms(video_frames);
    if (audio_ms <= video_ms) {
        ++audio_frames;
        return {audio_ms, true, false, AUDIO_FRAME_BYTES};
    }
    const bool is_key = video_frames++ % FRAMES_PER_KEY_FRAME == 0;
    return {video_ms, false, is_key, is_key ? KEY_FRAME_IN_INTER_FRAMES * inter_bytes : inter_bytes};
}

Publishers::Stream::Stream(std::size_t idx, unsigned kbit_per_second)
    : client(publishing_client(stream_name(idx))), schedule(kbit_per_second), next(schedule.next()) {
    if (idx % 2 == 0) {
        client.set_chunk_size(LARGE_CHUNK_BYTES);
    }
    client.send_metadata(amf_object({{"width", amf_number(1280)},
                                     {"height", amf_number(720)},
                                     {"videocodecid", amf_number(7)},
                                     {"audiocodecid", amf_number(10)}}));
}

Publishers::Publishers(std::size_t count, unsigned kbit_per_second, std::uint32_t skip_frame,
                       Receiver& receiver, Journal& failures)
    : journal(failures), skip_every(skip_frame) {
    for (std::size_t i = 0; i < count; ++i) {
        streams.push_back(std::make_unique<Stream>(i, kbit_per_second));
        receiver.drain(streams.back()->client.descriptor(), "the publisher of " + stream_name(i));
    }
    thread = std::thread([this] { failed = !journal.attempt("publishers", [this] { run(); }); });
}

void Publishers::stop() {
    stop_requested = true;
    if (thread.joinable()) {
        thread.join();
    }
}

std::vector<std::uint32_t> Publishers::sent() const {
    std::vector<std::uint32_t> frames;
    for (const auto& stream : streams) {
        frames.push_back(stream->sent);
    }
    return frames;
}

double Publishers::take_worst_oversleep_ms() {
    return static_cast<double>(worst_oversleep_us.exchange(0)) / 1000;
}

void Publishers::run() {
    for (const auto& stream : streams) {
        stream->client.send_audio(0, aac_header());
        stream->client.send_video(0, avc_header());
    }
    const TimePoint begin = SteadyClock::now();
    // One after the other: their large pictures do not come all at once.
    const auto due = [&](std::size_t idx) {
        return begin + BETWEEN_STREAMS * idx + Milliseconds{streams[idx]->next.due_ms};
    };
    while (!stop_requested) {
        std::size_t first = 0;
        for (std::size_t i = 1; i < streams.size(); ++i) {
            first = due(i) < due(first) ? i : first;
        }
        wait_until(due(first));
        send_next(*streams[first]);
    }
}

void Publishers::wait_until(TimePoint due) {
    if (SteadyClock::now() >= due) {
        return;
    }
    std::this_thread::sleep_until(due);
    const auto oversleep = std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - due);
    const auto oversleep_us = static_cast<std::uint64_t>(oversleep.count());
    // Only this thread raises it; a reader that takes it in between gets one of the two.
    if (oversleep_us > worst_oversleep_us) {
        worst_oversleep_us = oversleep_us;
    }
}

void Publishers::send_next(Stream& stream) const {
    const FrameSchedule::Frame frame = stream.next;
    stream.next = stream.schedule.next();
    const FrameStamp stamp{stream.sent, FIRST_TIMESTAMP_MS + frame.due_ms, now_us()};
    if (skip_every == 0 || stamp.sequence % skip_every != skip_every - 1) {
        if (frame.is_audio) {
            stream.client.send_audio(stamp.media_ms,
                                     stamped_frame(FrameKind::AUDIO, frame.size_bytes, stamp));
        } else {
            const FrameKind kind = frame.is_key ? FrameKind::VIDEO_KEY : FrameKind::VIDEO_INTER;
            stream.client.send_video(stamp.media_ms, stamped_frame(kind, frame.size_bytes, stamp));
        }
    }
    ++stream.sent;
}

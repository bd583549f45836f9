#include "bench/publishers.h"

#include <algorithm>

#include "bench/stamped_media.h"
#include "tests/support/media_bytes.h"

namespace {

// The server treats 0 as a clock that has not started.
constexpr std::uint32_t FIRST_TIMESTAMP_MS = 1;
// Only the publishers' thread raises it. A concurrent reader gets the old or the new value.
void raise(std::atomic<std::uint64_t>& worst_us, SteadyClock::duration duration) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    if (us > 0 && static_cast<std::uint64_t>(us) > worst_us) {
        worst_us = static_cast<std::uint64_t>(us);
    }
}

double take_ms(std::atomic<std::uint64_t>& worst_us) {
    return static_cast<double>(worst_us.exchange(0)) / 1000;
}

}  // namespace

std::string stream_name(std::size_t stream_idx) {
    return "load_" + std::to_string(stream_idx);
}

Publishers::Stream::Stream(std::size_t idx, const PublisherOptions& options)
    : client(handshaken_client(options.client)), schedule(options.shape), next(schedule.next()) {
    client.send_connect("ombrex-live");
    client.send_publish(stream_name(idx));
    const std::uint32_t chunk_bytes = options.chunk_sizes[idx % options.chunk_sizes.size()];
    if (chunk_bytes != DEFAULT_CHUNK_SIZE) {
        client.set_chunk_size(chunk_bytes);
    }
    client.send_metadata(amf_object({{"width", amf_number(1280)},
                                     {"height", amf_number(720)},
                                     {"videocodecid", amf_number(7)},
                                     {"audiocodecid", amf_number(10)}}));
}

Publishers::Publishers(const PublisherOptions& publisher_options, Receiver& receiver, Journal& failures)
    : journal(failures), options(publisher_options) {
    for (std::size_t i = 0; i < options.count; ++i) {
        streams.push_back(std::make_unique<Stream>(i, options));
    }
    // All are requested at once, because each reply takes a while.
    for (std::size_t i = 0; i < options.count; ++i) {
        // The echo of the chunk size may arrive first.
        for (int answers = 0; answers < 2;) {
            answers += streams[i]->client.read_message().type == MSG_COMMAND ? 1 : 0;
        }
        receiver.drain(streams[i]->client.descriptor(), "the publisher of " + stream_name(i));
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
    return take_ms(worst_oversleep_us);
}

double Publishers::take_worst_delay_ms() {
    return take_ms(worst_delay_us);
}

void Publishers::run() {
    for (const auto& stream : streams) {
        if (options.shape.audio_kbit_per_second != 0) {
            stream->client.send_audio(0, aac_header());
        }
        stream->client.send_video(0, avc_header());
    }
    const TimePoint begin = SteadyClock::now();
    const auto due = [&](std::size_t idx) {
        return begin + options.between_streams * idx + Milliseconds{streams[idx]->next.due_ms};
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
    if (SteadyClock::now() < due) {
        std::this_thread::sleep_until(due);
        raise(worst_oversleep_us, SteadyClock::now() - due);
    }
    raise(worst_delay_us, SteadyClock::now() - due);
}

void Publishers::send_next(Stream& stream) const {
    const Frame frame = stream.next;
    stream.next = stream.schedule.next();
    const FrameStamp stamp{stream.sent, FIRST_TIMESTAMP_MS + frame.due_ms, now_us()};
    if (options.skip_frame == 0 || stamp.sequence % options.skip_frame != options.skip_frame - 1) {
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

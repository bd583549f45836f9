#include "bench/soak/crowd.h"

#include <string>

#include "bench/publishers.h"

namespace {

// A player that leaves earlier need not have received anything.
constexpr Milliseconds LONG_ENOUGH{5000};
// About five seconds of audio and video.
constexpr std::uint32_t MOST_FRAMES_BEHIND = 365;
// One player in four asks for larger chunks.
constexpr std::size_t LARGE_CHUNKS_EVERY = 4;
constexpr std::uint32_t LARGE_CHUNK_BYTES = 4096;

}  // namespace

Crowd::Crowd(std::size_t stream_count, Receiver& receiver, Journal& events)
    : streams(stream_count), readers(receiver), journal(events) {}

Crowd::Visit Crowd::join() {
    const std::size_t stream_idx = joined % streams;
    const std::uint32_t chunk_bytes =
        joined / streams % LARGE_CHUNKS_EVERY == 0 ? LARGE_CHUNK_BYTES : DEFAULT_CHUNK_SIZE;
    ++joined;
    const Receiver::Id id =
        readers.add(LoadPlayer(handshaken_client(), stream_name(stream_idx), chunk_bytes), stream_idx);
    journal.count("joins");
    return {id, stream_idx, SteadyClock::now()};
}

void Crowd::leave(const Visit& visit, Receiver::Leave how, const std::vector<std::uint32_t>& sent) {
    const std::optional<std::uint32_t> next_frame = readers.remove(visit.id, how);
    journal.count("leaves");
    if (elapsed_since(visit.since) < LONG_ENOUGH) {
        return;
    }
    if (!next_frame) {
        journal.fail("a player leaves that has received nothing");
    } else if (sent[visit.stream_idx] > *next_frame + MOST_FRAMES_BEHIND) {
        journal.fail("a player leaves that is " + std::to_string(sent[visit.stream_idx] - *next_frame) +
                     " frames behind");
    }
}

void Crowd::let_one_leave(const std::vector<std::uint32_t>& sent) {
    if (come_and_go.empty()) {
        return;
    }
    const Visit visit = come_and_go.front();
    come_and_go.pop_front();
    leave(visit, left++ % 2 == 0 ? Receiver::Leave::CLOSE : Receiver::Leave::RESET, sent);
}

void Crowd::let_all_leave(const std::vector<std::uint32_t>& sent) {
    while (!come_and_go.empty()) {
        let_one_leave(sent);
    }
    for (const Visit& visit : stay) {
        leave(visit, Receiver::Leave::CLOSE, sent);
    }
    stay.clear();
}

#include "bench/soak/crowd.h"

#include "bench/soak/publishers.h"

namespace {

// Who leaves earlier need not have received anything.
constexpr Milliseconds LONG_ENOUGH{5000};
// One player in four asks for larger chunks.
constexpr std::size_t LARGE_CHUNKS_EVERY = 4;
constexpr std::uint32_t LARGE_CHUNK_BYTES = 4096;

}  // namespace

Crowd::Crowd(std::size_t stream_count, Receiver& receiver, Journal& events)
    : streams(stream_count), readers(receiver), journal(events) {}

Receiver::Id Crowd::join() {
    const std::size_t stream_idx = joined % streams;
    const std::uint32_t chunk_bytes =
        joined / streams % LARGE_CHUNKS_EVERY == 0 ? LARGE_CHUNK_BYTES : DEFAULT_CHUNK_SIZE;
    ++joined;
    const Receiver::Id id =
        readers.add(LoadPlayer(handshaken_client(), stream_name(stream_idx), chunk_bytes), stream_idx);
    journal.count("joins");
    return id;
}

void Crowd::leave(Receiver::Id id, Receiver::Leave how, bool must_have_received) {
    if (!readers.remove(id, how) && must_have_received) {
        journal.fail("a player leaves that has received nothing");
    }
    journal.count("leaves");
}

void Crowd::let_one_leave() {
    if (come_and_go.empty()) {
        return;
    }
    const Visit visit = come_and_go.front();
    come_and_go.pop_front();
    leave(visit.id, left++ % 2 == 0 ? Receiver::Leave::CLOSE : Receiver::Leave::RESET,
          elapsed_since(visit.since) >= LONG_ENOUGH);
}

void Crowd::let_all_leave() {
    while (!come_and_go.empty()) {
        let_one_leave();
    }
    for (const Receiver::Id id : stay) {
        leave(id, Receiver::Leave::CLOSE, true);
    }
    stay.clear();
}

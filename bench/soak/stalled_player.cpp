#include "bench/soak/stalled_player.h"

#include <utility>

#include "bench/publishers.h"
#include "bench/soak/tool.h"
#include "tests/support/test_failure.h"

namespace {

constexpr int SMALL_BUFFER_BYTES = 16384;
constexpr Milliseconds READING_TIME{3000};
constexpr Milliseconds FULL_SOCKET_TIME{500};
constexpr std::size_t ENDINGS = 4;

}  // namespace

void StalledPlayer::step(Actor& self) {
    const std::size_t round = steps++;
    const std::size_t stream_idx = round % streams;
    ClientOptions options;
    options.receive_buffer_bytes = SMALL_BUFFER_BYTES;
    RtmpClient client = handshaken_client(options);
    const std::string address = client.local_address();
    LoadPlayer player(std::move(client), stream_name(stream_idx), DEFAULT_CHUNK_SIZE);
    if (!self.rest(stall)) {
        return;
    }
    note_full_socket(self, address);
    switch (round % ENDINGS) {
        case 0:
            if (drop_by_id(listed_connection(address).at("id")) != 1) {
                throw TestFailure("the server has not dropped it");
            }
            break;
        case 1:
            catch_up(self, std::move(player), stream_idx);
            break;
        case 2:
            player.close_with_reset();
            break;
        default:
            break;
    }
    journal.count("stalls");
}

// Counts the stall if the server's writer is blocked, which happens once the sockets have taken a
// few megabytes.
void StalledPlayer::note_full_socket(Actor& self, const std::string& address) const {
    const auto bytes_sent = [&] { return listed_connection(address).at("bytes_sent").get<std::uint64_t>(); };
    const std::uint64_t before = bytes_sent();
    self.rest(FULL_SOCKET_TIME);
    if (bytes_sent() == before) {
        journal.count("stalls with full sockets");
    }
}

void StalledPlayer::catch_up(Actor& self, LoadPlayer player, std::size_t stream_idx) {
    const Receiver::Id id = readers.add(std::move(player), stream_idx, Measure::LOSS_ONLY);
    const bool had_time = self.rest(READING_TIME);
    if (!readers.remove(id) && had_time) {
        throw TestFailure("it has received nothing when it read at last");
    }
}

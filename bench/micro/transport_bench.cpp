// The path of a message: from chunks to a message, into the queues of all players, and to chunks again.
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "bench/micro/connections.h"
#include "bench/micro/timed.h"
#include "bench/micro/wire_messages.h"
#include "core/limits.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_dump.h"
#include "tests/support/fake_clock.h"
#include "tests/support/media_bytes.h"

namespace {

// A frame of a stream with 4 Mbit/s and 30 frames per second.
constexpr std::size_t FRAME_BYTES = 16666;
constexpr std::size_t KEY_FRAME_BYTES = 12 * FRAME_BYTES;
constexpr unsigned FRAME_MS = 33;
constexpr unsigned MESSAGES_AT_ONCE = 4;
constexpr std::size_t PLAYERS = MAX_CONNECTIONS - 1;

void set_bytes(benchmark::State& state, std::size_t bytes_each) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes_each));
}

// Arguments: payload and chunk size.
void read_message(benchmark::State& state) {
    Connections connections;
    RTMPConnection& conn = connections.add();
    const auto payload_bytes = static_cast<std::size_t>(state.range(0));
    const auto chunk_bytes = static_cast<std::uint32_t>(state.range(1));
    const std::string wire = video_on_the_wire(payload_bytes, chunk_bytes);
    conn.conn_g_client.chunk_size = chunk_bytes;
    ReceivedBytes::set(&wire);
    for (auto _ : state) {
        conn.in_pkt.chunk.message.release();
        if (!conn.rtmp_read_packet(conn.in_pkt)) {
            state.SkipWithError("not read");
            break;
        }
    }
    ReceivedBytes::set(nullptr);
    set_bytes(state, wire.size());
}

// A stream, its frames 33 ms apart, and players that have its decoder settings.
class Stream {
  public:
    Stream(std::size_t player_count, std::size_t frame_bytes)
        : publisher(connections.add_publisher("bench")), payload(avc_inter_frame(1, frame_bytes)) {
        for (std::size_t i = 0; i < player_count; ++i) {
            players.push_back(&connections.add_player("bench"));
        }
        RTMP_Packet header = packet_of(MESSAGE_VIDEO, 0, avc_header());
        is_kept = relay_to_players(publisher, header);
    }

    RTMP_Packet next_frame() {
        fake_clock_us += FRAME_MS * 1000;
        return packet_of(MESSAGE_VIDEO, timestamp += FRAME_MS, payload);
    }
    void relay(RTMP_Packet& frame) { is_kept = is_kept && relay_to_players(publisher, frame); }

    Connections connections;
    RTMPConnection& publisher;
    std::vector<RTMPConnection*> players;
    const std::string payload;
    bool is_kept = false;

  private:
    std::uint32_t timestamp = 0;
};

void send_all(benchmark::State& state, RTMPConnection& player) {
    while (!player.connection_out.empty()) {
        if (!player.rtmp_send_packet()) {
            state.SkipWithError("not sent");
            return;
        }
    }
}

void require_kept(benchmark::State& state, const Stream& stream) {
    if (!stream.is_kept) {
        state.SkipWithError("a player has got nothing");
    }
}

void drain(int fd) {
    static std::vector<char> sink(1 << 20);
    while (recv(fd, sink.data(), sink.size(), MSG_DONTWAIT) > 0) {
    }
}

// Arguments: payload and chunk size. Several relayed messages are queued, as when a writer wakes up.
void write_messages(benchmark::State& state) {
    Stream stream(1, static_cast<std::size_t>(state.range(0)));
    RTMPConnection& player = *stream.players[0];
    player.conn_g_server.chunk_size = static_cast<std::uint32_t>(state.range(1));
    for (auto _ : state) {
        for (unsigned i = 0; i < MESSAGES_AT_ONCE; ++i) {
            RTMP_Packet frame = stream.next_frame();
            stream.relay(frame);
        }
        stream.is_kept = stream.is_kept && !player.connection_out.empty();
        timed(state, [&] { send_all(state, player); });
        drain(stream.connections.peer(1));
    }
    require_kept(state, stream);
    set_bytes(state, MESSAGES_AT_ONCE * stream.payload.size());
}

// Argument: payload size.
void fan_out(benchmark::State& state) {
    Stream stream(PLAYERS, static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        RTMP_Packet frame = stream.next_frame();
        timed(state, [&] { stream.relay(frame); });
        for (RTMPConnection* const player : stream.players) {
            stream.is_kept = stream.is_kept && !player->connection_out.empty();
            player->connection_out.clear();
        }
    }
    require_kept(state, stream);
    state.counters["players"] = static_cast<double>(PLAYERS);
    state.counters["each"] =
        benchmark::Counter(static_cast<double>(state.iterations() * static_cast<std::int64_t>(PLAYERS)),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Argument: payload size.
void dump_message(benchmark::State& state) {
    const std::string payload = avc_inter_frame(1, static_cast<std::size_t>(state.range(0)));
    const RTMP_Packet pkt = packet_of(MESSAGE_VIDEO, 0, payload);
    for (auto _ : state) {
        dump_packet(pkt);
    }
    set_bytes(state, payload.size());
}

}  // namespace

BENCHMARK(read_message)
    ->Args({FRAME_BYTES, 128})
    ->Args({FRAME_BYTES, 4096})
    ->Args({KEY_FRAME_BYTES, 128})
    ->Args({200, 128});
BENCHMARK(write_messages)
    ->Args({FRAME_BYTES, 128})
    ->Args({FRAME_BYTES, 4096})
    ->Args({200, 128})
    ->UseManualTime();
BENCHMARK(fan_out)
    ->Arg(FRAME_BYTES)
    ->Arg(KEY_FRAME_BYTES)
    ->Arg(200)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(dump_message)->Arg(FRAME_BYTES)->Unit(benchmark::kMicrosecond);

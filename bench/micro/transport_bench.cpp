// The road of a message: chunks into a message, one message into the queues of all players, a message into chunks.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/micro/connections.h"
#include "bench/micro/timed.h"
#include "bench/micro/wire_messages.h"
#include "core/limits.h"
#include "relay/av_relay.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_dump.h"
#include "tests/support/fake_clock.h"
#include "tests/support/media_bytes.h"

namespace {

// A frame of 4 Mbit/s at 30 a second.
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

// Arguments: payload and chunk size. Several messages wait, as they do when a writer wakes up.
void write_messages(benchmark::State& state) {
    Connections connections;
    RTMPConnection& conn = connections.add();
    const std::string payload = avc_inter_frame(1, static_cast<std::size_t>(state.range(0)));
    conn.conn_g_server.chunk_size = static_cast<std::uint32_t>(state.range(1));
    std::vector<char> sink(1 << 20);
    std::uint32_t timestamp = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < MESSAGES_AT_ONCE; ++i) {
            conn.connection_out.push_back(packet_of(MESSAGE_VIDEO, ++timestamp, payload));
        }
        timed(state, [&] {
            while (!conn.connection_out.empty()) {
                if (!conn.rtmp_send_packet()) {
                    state.SkipWithError("not sent");
                    break;
                }
            }
        });
        for (std::size_t missing = MESSAGES_AT_ONCE * payload.size(); missing > 0;) {
            const ssize_t length = read(connections.peer(0), sink.data(), sink.size());
            missing -= std::min(missing, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        }
    }
    set_bytes(state, MESSAGES_AT_ONCE * payload.size());
}

// Argument: payload size.
void fan_out(benchmark::State& state) {
    Connections connections;
    RTMPConnection& publisher = connections.add_publisher("bench");
    std::vector<RTMPConnection*> players;
    for (std::size_t i = 0; i < PLAYERS; ++i) {
        players.push_back(&connections.add_player("bench"));
    }
    const std::string payload = avc_inter_frame(1, static_cast<std::size_t>(state.range(0)));
    RTMP_Packet header = packet_of(MESSAGE_VIDEO, 0, avc_header());
    std::uint32_t timestamp = 0;
    bool is_kept = relay_published_packet(publisher, header);
    for (auto _ : state) {
        fake_clock_us += FRAME_MS * 1000;
        RTMP_Packet frame = packet_of(MESSAGE_VIDEO, timestamp += FRAME_MS, payload);
        timed(state, [&] { is_kept = is_kept && relay_published_packet(publisher, frame); });
        for (RTMPConnection* const player : players) {
            is_kept = is_kept && !player->connection_out.empty();
            player->connection_out.clear();
        }
    }
    if (!is_kept) {
        state.SkipWithError("a player has got nothing");
    }
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

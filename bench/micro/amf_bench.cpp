// AMF0: the metadata of a real encoder, and the widest and deepest values that fit in a message.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "amf/amf_dump.h"
#include "amf/amf_read.h"
#include "amf/amf_write.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t MOST_MEMBERS = 174000;
constexpr std::size_t DEEPEST_NEST = 349524;
constexpr std::size_t MESSAGE_BYTES = 1 << 20;

void append_string(Bytes& bytes, const std::string& text) {
    bytes.push_back(static_cast<unsigned char>(text.size() >> 8));
    bytes.push_back(static_cast<unsigned char>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void append_number(Bytes& bytes, const std::string& key, std::uint16_t first_bits) {
    append_string(bytes, key);
    bytes.insert(bytes.end(), {0x00, static_cast<unsigned char>(first_bits >> 8),
                               static_cast<unsigned char>(first_bits), 0, 0, 0, 0, 0, 0});
}

// onMetaData as ffmpeg sends it.
Bytes encoder_metadata() {
    Bytes bytes{0x08, 0, 0, 0, 13};
    for (const char* key :
         {"duration", "width", "height", "videodatarate", "framerate", "videocodecid", "audiodatarate",
          "audiosamplerate", "audiosamplesize", "audiocodecid", "filesize"}) {
        append_number(bytes, key, 0x4094);
    }
    append_string(bytes, "stereo");
    bytes.insert(bytes.end(), {0x01, 0x01});
    append_string(bytes, "encoder");
    bytes.push_back(0x02);
    append_string(bytes, "Lavf59.27.100");
    bytes.insert(bytes.end(), {0, 0, 9});
    return bytes;
}

// Distinct keys of three bytes, each with a null.
Bytes widest_object() {
    Bytes bytes{0x03};
    for (std::size_t i = 0; i < MOST_MEMBERS; ++i) {
        bytes.insert(bytes.end(), {0, 3, static_cast<unsigned char>(i >> 16),
                                   static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i), 0x05});
    }
    bytes.insert(bytes.end(), {0, 0, 9});
    return bytes;
}

Bytes deepest_object() {
    Bytes bytes{0x03};
    for (std::size_t i = 0; i < DEEPEST_NEST; ++i) {
        bytes.insert(bytes.end(), {0, 0, 0x03});
    }
    return bytes;
}

AMF_Value decoded(const Bytes& bytes) {
    AMF_Value value;
    const unsigned char* s = bytes.data();
    if (!AMF_ReadValue(value, s, s + bytes.size())) {
        std::printf("a value of the benchmark is not read\n");
        std::exit(1);
    }
    return value;
}

void decode(benchmark::State& state, const Bytes& bytes) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(decoded(bytes));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void encode(benchmark::State& state, const Bytes& bytes) {
    const AMF_Value value = decoded(bytes);
    // Each level closed by the end of the data is written with an end marker.
    Bytes out(2 * MESSAGE_BYTES + bytes.size());
    for (auto _ : state) {
        unsigned char* d = out.data();
        if (!AMF_WriteValue(d, out.data() + out.size(), value)) {
            state.SkipWithError("not written");
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void dump(benchmark::State& state, const Bytes& bytes) {
    const AMF_Value value = decoded(bytes);
    for (auto _ : state) {
        AMF_DumpValue(value, "\t");
    }
}

}  // namespace

BENCHMARK_CAPTURE(decode, metadata, encoder_metadata());
BENCHMARK_CAPTURE(decode, members_174000, widest_object())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, levels_349524, deepest_object())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, metadata, encoder_metadata());
BENCHMARK_CAPTURE(encode, members_174000, widest_object())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, levels_349524, deepest_object())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, metadata, encoder_metadata());

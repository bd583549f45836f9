#include "bench/scale/film.h"

#include <zlib.h>

#include <fstream>
#include <iterator>

#include "tests/support/chunk_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t FILE_HEADER_BYTES = 9;
constexpr std::size_t TAG_HEADER_BYTES = 11;
constexpr std::size_t PREVIOUS_SIZE_BYTES = 4;
constexpr std::uint32_t FRAME_MS = 40;
constexpr char KEY_FRAME_TAG = 0x17;
constexpr char FRAME_PACKET = 1;

std::uint32_t checksum(std::string_view payload) {
    return static_cast<std::uint32_t>(
        crc32_z(0, reinterpret_cast<const unsigned char*>(payload.data()), payload.size()));
}

}  // namespace

bool is_frame(std::string_view payload) {
    return payload.size() > 1 && payload[1] == FRAME_PACKET;
}

Film Film::read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const Bytes bytes{std::istreambuf_iterator<char>(file), {}};
    Film film;
    std::size_t position = FILE_HEADER_BYTES + PREVIOUS_SIZE_BYTES;
    while (bytes.size() >= position + TAG_HEADER_BYTES) {
        const auto type = static_cast<std::uint8_t>(bytes[position]);
        const std::size_t size = get_be24(bytes, position + 1);
        const std::uint32_t timestamp = get_be24(bytes, position + 4);
        FilmFrame frame{type, timestamp, false, bytes.substr(position + TAG_HEADER_BYTES, size)};
        position += TAG_HEADER_BYTES + size + PREVIOUS_SIZE_BYTES;
        if ((type != MSG_AUDIO && type != MSG_VIDEO) || size < 2) {
            continue;
        }
        frame.is_key = type == MSG_VIDEO && frame.payload[0] == KEY_FRAME_TAG;
        if (!is_frame(frame.payload)) {
            film.headers.push_back(frame);
        } else if (!film.frames.empty() || frame.is_key) {
            film.length_ms = timestamp + FRAME_MS;
            film.frames.push_back(frame);
        }
    }
    if (film.headers.size() < 2 || film.frames.empty()) {
        throw TestFailure(path + " is not an FLV file with audio and video");
    }
    return film;
}

void SentFrames::note(std::string_view payload, SentFrame frame) {
    const std::lock_guard guard(mutex);
    by_checksum[checksum(payload)] = frame;
}

std::optional<SentFrame> SentFrames::find(std::string_view payload) const {
    const std::uint32_t sum = checksum(payload);
    const std::lock_guard guard(mutex);
    const auto found = by_checksum.find(sum);
    return found == by_checksum.end() ? std::nullopt : std::optional(found->second);
}

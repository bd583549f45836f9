// The audio and video of an FLV file, as an encoder sends them, and when each frame was last sent. Players
// recognize a frame by its checksum, so it may pass through programs that write new headers.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tests/support/wire_bytes.h"

struct FilmFrame {
    std::uint8_t type;  // of the message: audio or video
    std::uint32_t due_ms;
    bool is_key;
    Bytes payload;
};

struct Film {
    // Throws TestFailure if the file is not an FLV file with audio and video.
    static Film read(const std::string& path);

    std::vector<FilmFrame> headers;  // of the decoders
    std::vector<FilmFrame> frames;   // the first is a key frame, at 0 ms
    std::uint32_t length_ms = 0;
};

// Whether the payload is a frame; decoder settings and the end of a sequence are not.
bool is_frame(std::string_view payload);

struct SentFrame {
    std::uint32_t sequence;  // among the frames of its type
    std::uint64_t sent_us;
};

// Any thread may call it.
class SentFrames {
  public:
    void note(std::string_view payload, SentFrame frame);
    // Returns when the frame was sent last. Empty if it never was.
    std::optional<SentFrame> find(std::string_view payload) const;

  private:
    mutable std::mutex mutex;
    std::unordered_map<std::uint32_t, SentFrame> by_checksum;
};

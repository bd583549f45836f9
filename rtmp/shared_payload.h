// The payload of one relayed message, split into chunks once and shared by all players it is queued for.
//
//   | chunk_size bytes | continuation header | chunk_size bytes | continuation header | ... | the rest |
//
// The block is immutable, so any thread may read it without a lock. The last holder frees it. The first
// chunk's header is not included, because its timestamp differs between players.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtmp/rtmp_packet.h"

class SharedPayload {
  public:
    // Holds nothing.
    SharedPayload() = default;
    SharedPayload(SharedPayload&& other) noexcept;
    SharedPayload& operator=(SharedPayload&& other) noexcept;
    SharedPayload(const SharedPayload&) = delete;
    SharedPayload& operator=(const SharedPayload&) = delete;
    ~SharedPayload() { release(); }

    // Copies the payload of chunk into a new block for writers that use chunk_size, which must not be 0. The
    // result holds nothing if the payload is empty or larger than MAX_PAYLOAD_BYTES, or there is no memory.
    [[nodiscard]] static SharedPayload lay_out(const RTMP_Packet::chunk_t& chunk, std::uint32_t chunk_size);

    // Returns another holder of the same block.
    [[nodiscard]] SharedPayload share() const;
    void release();

    // Returns the payload's length without continuation headers; 0 if it holds nothing.
    [[nodiscard]] std::uint32_t payload_bytes() const;

    // The following functions require that it holds something.

    // Whether a writer that uses this chunk size can send the block unchanged after the message header.
    [[nodiscard]] bool is_laid_out_for(std::uint32_t chunk_size) const;

    struct Bytes {
        const unsigned char* data;
        std::size_t length;
    };
    // Returns the whole block, including continuation headers.
    [[nodiscard]] Bytes laid_out() const;
    // Returns the longest run of payload bytes from offset without a continuation header. offset must be
    // below payload_bytes().
    [[nodiscard]] Bytes plain_run(std::uint32_t offset) const;

  private:
    struct Block;
    explicit SharedPayload(Block* owned) : block(owned) {}

    Block* block = nullptr;
};

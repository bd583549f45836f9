// The payload of one relayed message, laid out in chunks once and shared by every player it waits for.
//
//   | chunk_size bytes | continuation header | chunk_size bytes | continuation header | ... | the rest |
//
// The block is immutable, so any thread may read it without a lock. The holder that lets go last frees it. The first
// chunk's header is not part of it: its timestamp differs from player to player.
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

    // Copies the payload of chunk into a new block for writers that send with chunk_size, which is not 0. Holds
    // nothing when the payload is empty or larger than MAX_PAYLOAD_BYTES, or without memory.
    [[nodiscard]] static SharedPayload lay_out(const RTMP_Packet::chunk_t& chunk, std::uint32_t chunk_size);

    // Another holder of the same block.
    [[nodiscard]] SharedPayload share() const;
    void release();

    // Payload bytes, without continuation headers; 0 when it holds nothing.
    [[nodiscard]] std::uint32_t payload_bytes() const;

    // The rest requires that it holds something.

    // Whether the block is what a writer sends after the message header at this chunk size.
    [[nodiscard]] bool is_laid_out_for(std::uint32_t chunk_size) const;

    struct Bytes {
        const unsigned char* data;
        std::size_t length;
    };
    // The whole block, continuation headers included.
    [[nodiscard]] Bytes laid_out() const;
    // The longest run of payload bytes without a continuation header that begins at offset, below payload_bytes().
    [[nodiscard]] Bytes plain_run(std::uint32_t offset) const;

  private:
    struct Block;
    explicit SharedPayload(Block* owned) : block(owned) {}

    Block* block = nullptr;
};

#include "rtmp/shared_payload.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <utility>

#include "rtmp/chunk_format.h"

// The head of the allocation; the bytes follow it.
struct SharedPayload::Block {
    std::atomic<std::uint32_t> holders;
    std::uint32_t payload_bytes;
    std::uint32_t chunk_size;
    std::uint32_t continuation_bytes;
    std::size_t laid_out_bytes;

    unsigned char* bytes() { return reinterpret_cast<unsigned char*>(this + 1); }
};

SharedPayload::SharedPayload(SharedPayload&& other) noexcept : block(std::exchange(other.block, nullptr)) {}

SharedPayload& SharedPayload::operator=(SharedPayload&& other) noexcept {
    if (this != &other) {
        release();
        block = std::exchange(other.block, nullptr);
    }
    return *this;
}

SharedPayload SharedPayload::lay_out(const RTMP_Packet::chunk_t& chunk, std::uint32_t chunk_size) {
    const std::uint32_t payload_bytes = chunk.message.data_length;
    if (payload_bytes == 0 || payload_bytes > MAX_PAYLOAD_BYTES) {
        return {};
    }
    std::array<unsigned char, MAX_BASIC_HEADER_BYTES> continuation{};
    const std::size_t continuation_bytes =
        write_basic_header(continuation.data(), CONTINUATION_FMT, chunk.stream_id);
    const std::size_t continuations = (payload_bytes - 1) / chunk_size;
    const std::size_t laid_out_bytes = payload_bytes + continuations * continuation_bytes;
    auto* const memory = new (std::nothrow) unsigned char[sizeof(Block) + laid_out_bytes];
    if (memory == nullptr) {
        return {};
    }
    auto* const block =
        new (memory) Block{.holders = 1,
                           .payload_bytes = payload_bytes,
                           .chunk_size = chunk_size,
                           .continuation_bytes = static_cast<std::uint32_t>(continuation_bytes),
                           .laid_out_bytes = laid_out_bytes};
    unsigned char* d = block->bytes();
    const unsigned char* s = chunk.message.data;
    for (std::size_t left = payload_bytes;;) {
        const std::size_t todo = std::min<std::size_t>(chunk_size, left);
        std::memcpy(d, s, todo);
        left -= todo;
        if (left == 0) {
            return SharedPayload(block);
        }
        d += todo;
        s += todo;
        std::memcpy(d, continuation.data(), continuation_bytes);
        d += continuation_bytes;
    }
}

SharedPayload SharedPayload::share() const {
    if (block != nullptr) {
        block->holders.fetch_add(1, std::memory_order_relaxed);
    }
    return SharedPayload(block);
}

void SharedPayload::release() {
    Block* const left = std::exchange(block, nullptr);
    // The memory order makes all reads by other holders happen before the last one frees the block.
    if (left != nullptr && left->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        left->~Block();
        delete[] reinterpret_cast<unsigned char*>(left);
    }
}

std::uint32_t SharedPayload::payload_bytes() const {
    return block == nullptr ? 0 : block->payload_bytes;
}

bool SharedPayload::is_laid_out_for(std::uint32_t chunk_size) const {
    // A payload of one chunk contains no continuation header.
    return chunk_size == block->chunk_size || block->payload_bytes <= std::min(chunk_size, block->chunk_size);
}

SharedPayload::Bytes SharedPayload::laid_out() const {
    return {block->bytes(), block->laid_out_bytes};
}

SharedPayload::Bytes SharedPayload::plain_run(std::uint32_t offset) const {
    const std::size_t chunk = offset / block->chunk_size;
    const std::size_t within = offset % block->chunk_size;
    return {block->bytes() + chunk * (std::size_t{block->chunk_size} + block->continuation_bytes) + within,
            std::min<std::size_t>(block->chunk_size - within, block->payload_bytes - offset)};
}

// An RTMP message in memory, on its way from the chunk reader through the queues and the relay to
// the chunk writer.
//
// 1. A packet owns its payload. A buffer has exactly one owner at any time, whose destructor frees it.
// 2. Packets are moved. Only copy_to() and SharedPayload::lay_out(), which copies a payload once for all
//    players of a stream, copy payloads.
// 3. No payload is larger than MAX_PAYLOAD_BYTES.
//
// A packet has no lock. It belongs to one thread, or is guarded by the mutex of the queue it is in.
#pragma once

#include <cstdint>

constexpr std::uint32_t MAX_PAYLOAD_BYTES = 0xFFFFF;

struct RTMP_Packet {
    struct chunk_t {
        std::uint8_t fmt = 0;         // header format 0..3 of the first chunk received; ignored on output
        std::uint32_t stream_id = 0;  // chunk stream id: 2 is protocol control, 3 and up commands and media
        std::uint32_t timestamp = 0;  // absolute, milliseconds, wraps
        // as received; on output, set to the payload's length just before sending
        std::uint32_t message_length = 0;
        std::uint8_t message_type_id = 0;  // see message_types.h
        std::uint32_t message_stream_id = 0;

        struct message_t {
            // from new (std::nothrow) unsigned char[]; null if there is no payload
            unsigned char* data = nullptr;
            std::uint32_t data_length = 0;

            message_t() = default;
            message_t(message_t&& other) noexcept;
            message_t& operator=(message_t&& other) noexcept;
            message_t(const message_t&) = delete;
            message_t& operator=(const message_t&) = delete;
            ~message_t() { delete[] data; }

            // Releases the old payload and allocates length bytes of unspecified content. Returns false, and
            // stays empty, if length is 0 or above MAX_PAYLOAD_BYTES or there is no memory.
            [[nodiscard]] bool allocate(std::uint32_t length);

            // Copies the payload into dst, another message, and releases dst's old payload. Copying an empty
            // payload succeeds. Returns false, with dst empty, if the payload is above MAX_PAYLOAD_BYTES or
            // there is no memory.
            [[nodiscard]] bool copy_to(message_t& dst) const;

            // Frees the payload.
            void release();
        } message;
    } chunk;

    // Copies the six header fields. The payload is unchanged.
    void copy_header_from(const RTMP_Packet& other);
};

// Whether the payloads differ in length or in any byte. The caller must not pass a length without data.
[[nodiscard]] bool packet_data_different(const RTMP_Packet& a, const RTMP_Packet& b);

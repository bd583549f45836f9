// One RTMP message in memory, from the chunk reader through the queues and the relay to the chunk writer.
//
// 1. A packet owns its payload: exactly one packet owns a buffer at any time, and its destructor releases it.
// 2. Packets move. copy_to() duplicates a payload; SharedPayload::lay_out() copies one for all players of a stream.
// Nothing else does.
// 3. No payload is larger than MAX_PAYLOAD_BYTES.
// A packet carries no lock: the thread that holds it, or the mutex of the queue that holds it, protects it.
#pragma once

#include <cstdint>

constexpr std::uint32_t MAX_PAYLOAD_BYTES = 0xFFFFF;

struct RTMP_Packet {
    struct chunk_t {
        std::uint8_t fmt = 0;         // header format 0..3 of the first chunk as received; ignored on output
        std::uint32_t stream_id = 0;  // chunk stream id: 2 is protocol control, 3 and up commands and media
        std::uint32_t timestamp = 0;  // absolute, milliseconds, wraps
        // from the header; on output set to the length of the payload just before sending
        std::uint32_t message_length = 0;
        std::uint8_t message_type_id = 0;  // see message_types.h
        std::uint32_t message_stream_id = 0;

        struct message_t {
            // from new (std::nothrow) unsigned char[]; null when there is none
            unsigned char* data = nullptr;
            std::uint32_t data_length = 0;

            message_t() = default;
            message_t(message_t&& other) noexcept;
            message_t& operator=(message_t&& other) noexcept;
            message_t(const message_t&) = delete;
            message_t& operator=(const message_t&) = delete;
            ~message_t() { delete[] data; }

            // Makes room for length bytes, whose content is unspecified; what was held is released first.
            // False, and empty, when length is 0 or above MAX_PAYLOAD_BYTES or there is no memory.
            [[nodiscard]] bool allocate(std::uint32_t length);

            // Deep copy into dst, another message, whose old payload is released in any case. Copying an
            // empty payload succeeds. False, with dst empty, above MAX_PAYLOAD_BYTES or without memory.
            [[nodiscard]] bool copy_to(message_t& dst) const;

            // Back to no payload.
            void release();
        } message;
    } chunk;

    // Copies the six header fields; the payload stays as it is.
    void copy_header_from(const RTMP_Packet& other);
};

// True when the payloads differ in length or in a byte. A length without data is a mistake of the caller.
[[nodiscard]] bool packet_data_different(const RTMP_Packet& a, const RTMP_Packet& b);

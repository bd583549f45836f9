#include "rtmp/rtmp_packet.h"

#include <cstring>
#include <new>
#include <utility>

#include "base/check.h"

using message_t = RTMP_Packet::chunk_t::message_t;

message_t::message_t(message_t&& other) noexcept
    : data(std::exchange(other.data, nullptr)), data_length(std::exchange(other.data_length, 0U)) {}

message_t& message_t::operator=(message_t&& other) noexcept {
    if (this != &other) {
        delete[] data;
        data = std::exchange(other.data, nullptr);
        data_length = std::exchange(other.data_length, 0U);
    }
    return *this;
}

bool message_t::allocate(std::uint32_t length) {
    release();
    if (length == 0 || length > MAX_PAYLOAD_BYTES) {
        return false;
    }
    data = new (std::nothrow) unsigned char[length];
    if (data == nullptr) {
        return false;
    }
    data_length = length;
    return true;
}

bool message_t::copy_to(message_t& dst) const {
    dst.release();
    if (data_length == 0) {
        return true;
    }
    if (!dst.allocate(data_length)) {
        return false;
    }
    CHECK(dst.data_length == data_length);
    std::memcpy(dst.data, data, data_length);
    return true;
}

void message_t::release() {
    delete[] data;
    data = nullptr;
    data_length = 0;
}

void RTMP_Packet::copy_header_from(const RTMP_Packet& other) {
    chunk.fmt = other.chunk.fmt;
    chunk.stream_id = other.chunk.stream_id;
    chunk.timestamp = other.chunk.timestamp;
    chunk.message_length = other.chunk.message_length;
    chunk.message_type_id = other.chunk.message_type_id;
    chunk.message_stream_id = other.chunk.message_stream_id;
}

bool packet_data_different(const RTMP_Packet& a, const RTMP_Packet& b) {
    if (a.chunk.message.data_length != b.chunk.message.data_length) {
        return true;
    }
    if (a.chunk.message.data_length == 0) {
        return false;
    }
    CHECK(a.chunk.message.data != NULL);  // NOLINT(modernize-use-nullptr): operators search for this text
    CHECK(b.chunk.message.data != NULL);  // NOLINT(modernize-use-nullptr): operators search for this text
    return std::memcmp(a.chunk.message.data, b.chunk.message.data, a.chunk.message.data_length) != 0;
}

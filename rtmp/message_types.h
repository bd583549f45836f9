// RTMP message type ids and the one reserved chunk stream id.
#pragma once

#include <cstdint>

constexpr std::uint8_t MESSAGE_SET_CHUNK_SIZE = 1;
constexpr std::uint8_t MESSAGE_ACKNOWLEDGEMENT = 3;
constexpr std::uint8_t MESSAGE_USER_CONTROL = 4;
constexpr std::uint8_t MESSAGE_WINDOW_ACK_SIZE = 5;
constexpr std::uint8_t MESSAGE_AUDIO = 8;
constexpr std::uint8_t MESSAGE_VIDEO = 9;
constexpr std::uint8_t MESSAGE_AMF0_DATA = 18;
constexpr std::uint8_t MESSAGE_AMF0_COMMAND = 20;

constexpr std::uint32_t CONTROL_CHUNK_STREAM_ID = 2;

constexpr bool is_audio_or_video(std::uint8_t message_type_id) {
    return message_type_id == MESSAGE_AUDIO || message_type_id == MESSAGE_VIDEO;
}

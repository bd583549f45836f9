#include "rtmp/packet_dump.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "base/diag.h"
#include "core/switches.h"
#include "rtmp/message_types.h"

namespace {

constexpr std::uint32_t ROW_BYTES = 16;
constexpr std::size_t ROW_TEXT_BYTES = 4 + ROW_BYTES * 3 + 2 + ROW_BYTES + 1;

void append_row(std::string& text, const RTMP_Packet::chunk_t::message_t& message, std::uint32_t row_start) {
    constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
    const std::uint32_t left = message.data_length - row_start;
    const std::uint32_t row_bytes = left < ROW_BYTES ? left : ROW_BYTES;
    const unsigned char* const row = message.data + row_start;

    text.append(4, ' ');
    for (std::uint32_t i = 0; i < row_bytes; ++i) {
        text += HEX_DIGITS[row[i] >> 4];
        text += HEX_DIGITS[row[i] & 15];
        text += ' ';
    }
    text.append((ROW_BYTES - row_bytes) * 3 + 2, ' ');
    for (std::uint32_t i = 0; i < row_bytes; ++i) {
        text += row[i] >= 0x20 && row[i] <= 0x7E ? static_cast<char>(row[i]) : '.';
    }
    text.append(ROW_BYTES - row_bytes, ' ');
    text += '\n';
}

bool is_dumped(const RTMP_Packet& pkt) {
    return packets_are_dumped() && !is_audio_or_video(pkt.chunk.message_type_id);
}

}  // namespace

void dump_packet(const RTMP_Packet& pkt) {
    const RTMP_Packet::chunk_t& chunk = pkt.chunk;
    char line[192];
    std::snprintf(
        line, sizeof line,
        "RTMP packet: chunk fmt=%u stream_id=%lu timestamp=%lu message_length=%lu message_type_id=%u "
        "message_stream_id=%lu\n",
        unsigned{chunk.fmt}, static_cast<unsigned long>(chunk.stream_id),
        static_cast<unsigned long>(chunk.timestamp), static_cast<unsigned long>(chunk.message_length),
        unsigned{chunk.message_type_id}, static_cast<unsigned long>(chunk.message_stream_id));
    std::string text = line;

    if (chunk.message.data != nullptr) {
        const std::uint32_t data_length = chunk.message.data_length;
        std::snprintf(line, sizeof line, "  Data (%lu bytes)\n", static_cast<unsigned long>(data_length));
        text += line;
        text.reserve(text.size() + (data_length / ROW_BYTES + 1) * ROW_TEXT_BYTES);
        for (std::uint32_t row_start = 0; row_start < data_length; row_start += ROW_BYTES) {
            append_row(text, chunk.message, row_start);
        }
    }
    diag_block(text);
}

bool packets_are_dumped() {
    return opt_dbg_pkt;
}

void dump_read_packet(const RTMP_Packet& pkt) {
    if (is_dumped(pkt)) {
        dump_packet(pkt);
    }
}

void dump_packet_to_send(const RTMP_Packet& pkt) {
    if (is_dumped(pkt)) {
        diag("Sending:\n");
        dump_packet(pkt);
    }
}

// Prints a packet for people to read.
#include <comm_socket_v4.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "comm_socket/packet.h"
#include "comm_socket/wire.h"

namespace comm_socket {
namespace {

constexpr std::size_t SHOWN_BYTES = 1024;  // of one string
constexpr std::size_t SHOWN_PAIRS = 256;

void append_quoted(std::string* out, std::string_view text) {
    constexpr std::string_view HEX = "0123456789ABCDEF";
    *out += '"';
    for (const char character : text.substr(0, SHOWN_BYTES)) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte > 0x7E) {
            *out += "\\x";
            *out += HEX[byte >> 4];
            *out += HEX[byte & 15];
        } else {
            if (character == '"' || character == '\\') {
                *out += '\\';
            }
            *out += character;
        }
    }
    *out += '"';
    if (text.size() > SHOWN_BYTES) {
        *out += "... (" + std::to_string(text.size()) + " bytes)";
    }
}

void append_line(std::string* out, std::string_view name, std::string_view text) {
    *out += "  ";
    *out += name;
    *out += ": ";
    append_quoted(out, text);
    *out += '\n';
}

std::string dump(const comm_socket_v4_packet* packet) {
    const FrameText& text = *packet->content->text;
    const bool is_request = (packet->flags & COMM_SOCKET_V4_REQUEST) != 0;
    std::string out = is_request ? "Packet: request" : "Packet: response";
    if ((packet->flags & COMM_SOCKET_V4_ASYNC) != 0) {
        out += ", async";
    }
    out += ", id " + std::to_string(packet->request_id) + ", status " + std::to_string(packet->status) + '\n';
    append_line(&out, "command", text.command);
    append_line(&out, "message", text.message);
    for (std::size_t i = 0; i < text.arguments.size(); ++i) {
        const std::string name = "argument " + std::to_string(i);
        if (text.arguments[i]) {
            append_line(&out, name, *text.arguments[i]);
        } else {
            out += "  " + name + " is absent\n";
        }
    }
    for (std::size_t i = 0; i < std::min(text.pairs.size(), SHOWN_PAIRS); ++i) {
        out += "  pair ";
        append_quoted(&out, text.pairs[i].first);
        out += " = ";
        const char* const value = comm_socket_v4_packet_get_pair_value(packet, i);
        if (value == nullptr) {
            throw std::bad_alloc();
        }
        append_quoted(&out, {value, comm_socket_v4_packet_get_pair_value_length(packet, i)});
        out += '\n';
    }
    if (text.pairs.size() > SHOWN_PAIRS) {
        out += "  ... (" + std::to_string(text.pairs.size()) + " pairs)\n";
    }
    return out;
}

}  // namespace
}  // namespace comm_socket

void comm_socket_v4_packet_dump_user_friendly(const comm_socket_v4_packet* packet, FILE* stream) {
    if (packet == nullptr || stream == nullptr) {
        return;
    }
    try {
        // A single write, so that lines of other threads do not interleave.
        const std::string text = comm_socket::dump(packet);
        fwrite(text.data(), 1, text.size(), stream);
    } catch (const std::exception&) {
        fputs("Packet: no memory to print it\n", stream);
    }
}

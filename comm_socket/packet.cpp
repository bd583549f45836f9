#include "comm_socket/packet.h"

#include <comm_socket_v4.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "comm_socket/errors.h"

namespace comm_socket {

comm_socket_v4_packet* make_packet(const FrameHead& head, FrameText&& text) {
    auto content = std::make_unique<comm_socket_v4_content>();
    *content->text = std::move(text);
    content->state = PacketState::COMPLETE;
    return new comm_socket_v4_packet{head.flags, head.request_id, head.status, content.release()};
}

void hold_request(comm_socket_v4_packet* packet, HeldRequests* held,
                  const std::shared_ptr<std::size_t>& unreleased) {
    comm_socket_v4_content* content = packet->content;
    content->position = held->insert(held->end(), packet);
    content->held = held;
    content->unreleased = unreleased;
    ++*unreleased;
}

FrameHead head_of(const comm_socket_v4_packet* packet) {
    return {packet->flags, packet->request_id, packet->status};
}

namespace {

// Returns 0 if the packet is being written and has room for added bytes, otherwise an errno. The sum cannot
// overflow, because is_too_long refuses strings above the limit.
int test_writable(const comm_socket_v4_packet* packet, std::uint64_t added) {
    if (packet == nullptr || packet->content->state != PacketState::WRITING) {
        return EINVAL;
    }
    return packet->content->body_bytes + added > REPLY_LIMITS.body_bytes ? EMSGSIZE : 0;
}

bool is_too_long(std::string_view string) {
    return string.size() > REPLY_LIMITS.body_bytes;
}

int write_argument(comm_socket_v4_packet* packet, const std::optional<std::string_view>& argument) {
    if (argument && is_too_long(*argument)) {
        return refuse(EMSGSIZE);
    }
    const std::uint64_t added = encoded_argument_bytes(argument);
    if (const int error = test_writable(packet, added); error != 0) {
        return refuse(error);
    }
    auto& arguments = packet->content->text->arguments;
    if (arguments.size() >= REPLY_LIMITS.arguments) {
        return refuse(EMSGSIZE);
    }
    try {
        arguments.emplace_back(argument);
    } catch (const std::exception&) {
        return refuse(ENOMEM);
    }
    packet->content->body_bytes += added;
    return 0;
}

// value does not hold the shared part, if there is one.
int write_pair(comm_socket_v4_packet* packet, std::string_view name, std::string_view value,
               SharedPart* shared = nullptr) {
    const std::string_view shared_bytes = shared != nullptr ? shared->bytes : std::string_view();
    if (is_too_long(name) || is_too_long(value) || is_too_long(shared_bytes)) {
        return refuse(EMSGSIZE);
    }
    const std::uint64_t added = encoded_pair_bytes(name, value) + shared_bytes.size();
    if (const int error = test_writable(packet, added); error != 0) {
        return refuse(error);
    }
    auto& pairs = packet->content->text->pairs;
    if (pairs.size() >= REPLY_LIMITS.pairs) {
        return refuse(EMSGSIZE);
    }
    const std::size_t pair_idx = pairs.size();
    try {
        pairs.emplace_back(name, value);
        if (shared != nullptr) {
            shared->pair_idx = pair_idx;
            packet->content->text->shared_parts.push_back(std::move(*shared));
        }
    } catch (const std::exception&) {
        pairs.resize(pair_idx);
        return refuse(ENOMEM);
    }
    packet->content->body_bytes += added;
    return 0;
}

// A null pointer is allowed only with a length of 0.
bool is_bytes(const void* bytes, size_t length) {
    return bytes != nullptr || length == 0;
}

std::string_view view_bytes(const void* bytes, size_t length) {
    return length == 0 ? std::string_view() : std::string_view(static_cast<const char*>(bytes), length);
}

const std::string* argument_at(const comm_socket_v4_packet* packet, size_t idx) {
    if (packet == nullptr || idx >= packet->content->text->arguments.size()) {
        return nullptr;
    }
    const auto& argument = packet->content->text->arguments[idx];
    return argument ? &*argument : nullptr;
}

const std::string* pair_name_at(const comm_socket_v4_packet* packet, size_t idx) {
    if (packet == nullptr || idx >= packet->content->text->pairs.size()) {
        return nullptr;
    }
    return &packet->content->text->pairs[idx].first;
}

const std::string* pair_value_at(const comm_socket_v4_packet* packet, size_t idx) {
    if (packet == nullptr || idx >= packet->content->text->pairs.size()) {
        return nullptr;
    }
    const FrameText& text = *packet->content->text;
    const std::string& value = text.pairs[idx].second;
    const auto shared = std::find_if(text.shared_parts.begin(), text.shared_parts.end(),
                                     [idx](const SharedPart& part) { return part.pair_idx == idx; });
    if (shared == text.shared_parts.end()) {
        return &value;
    }
    try {
        std::string& joined = packet->content->joined_values[idx];
        if (joined.empty()) {
            // Assigned only when complete, so a failed allocation leaves it empty.
            joined = std::string(value).insert(shared->offset, shared->bytes);
        }
        return &joined;
    } catch (const std::exception&) {
        return nullptr;
    }
}

const char* c_string(const std::string* string) {
    return string == nullptr ? nullptr : string->c_str();
}
size_t length_of(const std::string* string) {
    return string == nullptr ? 0 : string->size();
}

}  // namespace
}  // namespace comm_socket

using comm_socket::PacketState;

comm_socket_v4_packet* comm_socket_v4_packet_create(void) {
    try {
        auto content = std::make_unique<comm_socket_v4_content>();
        return new comm_socket_v4_packet{COMM_SOCKET_V4_REQUEST, 0, 0, content.release()};
    } catch (const std::exception&) {
        errno = ENOMEM;
        return nullptr;
    }
}

comm_socket_v4_packet* comm_socket_v4_packet_release(comm_socket_v4_packet* packet) {
    if (packet == nullptr) {
        return nullptr;
    }
    comm_socket_v4_content* content = packet->content;
    if (content->held != nullptr) {
        content->held->erase(content->position);
        --*content->unreleased;
    }
    delete content;
    delete packet;
    return nullptr;
}

void comm_socket_v4_packet_make_response(comm_socket_v4_packet* packet) {
    if (packet != nullptr) {
        packet->flags &= ~COMM_SOCKET_V4_REQUEST;
    }
}

void comm_socket_v4_packet_set_async(comm_socket_v4_packet* packet, int async) {
    if (packet == nullptr) {
        return;
    }
    if (async != 0) {
        packet->flags |= COMM_SOCKET_V4_ASYNC;
    } else {
        packet->flags &= ~COMM_SOCKET_V4_ASYNC;
    }
}

int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* packet, int reserved, const char* command,
                                        const char* message) {
    if (packet == nullptr || reserved != 0 || command == nullptr || message == nullptr) {
        return comm_socket::refuse(EINVAL);
    }
    try {
        auto text = std::make_shared<comm_socket::FrameText>();
        text->command = command;
        text->message = message;
        const std::uint64_t body_bytes = comm_socket::encoded_body_bytes(*text);
        if (body_bytes > comm_socket::REPLY_LIMITS.body_bytes) {
            return comm_socket::refuse(EMSGSIZE);
        }
        packet->content->text = std::move(text);
        packet->content->joined_values.clear();
        packet->content->body_bytes = body_bytes;
        packet->content->state = PacketState::WRITING;
    } catch (const std::exception&) {
        return comm_socket::refuse(ENOMEM);
    }
    return 0;
}

int comm_socket_v4_packet_write_argv(comm_socket_v4_packet* packet, const char* argument) {
    if (argument == nullptr) {
        return comm_socket::write_argument(packet, std::nullopt);
    }
    return comm_socket::write_argument(packet, std::string_view(argument));
}

int comm_socket_v4_packet_write_argv_bytes(comm_socket_v4_packet* packet, const void* argument,
                                           size_t length) {
    if (!comm_socket::is_bytes(argument, length)) {
        return comm_socket::refuse(EINVAL);
    }
    return comm_socket::write_argument(packet, comm_socket::view_bytes(argument, length));
}

int comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value) {
    if (name == nullptr || value == nullptr) {
        return comm_socket::refuse(EINVAL);
    }
    return comm_socket::write_pair(packet, name, value);
}

int comm_socket_v4_packet_write_nv_pair_bytes(comm_socket_v4_packet* packet, const void* name,
                                              size_t name_length, const void* value, size_t value_length) {
    if (!comm_socket::is_bytes(name, name_length) || !comm_socket::is_bytes(value, value_length)) {
        return comm_socket::refuse(EINVAL);
    }
    return comm_socket::write_pair(packet, comm_socket::view_bytes(name, name_length),
                                   comm_socket::view_bytes(value, value_length));
}

int comm_socket_v4_packet_write_nv_pair_shared(comm_socket_v4_packet* packet, const char* name,
                                               const char* before, comm_socket_v4_shared_bytes shared,
                                               const char* after) {
    if (shared.release == nullptr) {
        return comm_socket::refuse(EINVAL);
    }
    try {
        // If the constructor of the shared_ptr throws, it calls release.
        comm_socket::SharedPart part{0, 0, {}, std::shared_ptr<void>(shared.owner, shared.release)};
        if (name == nullptr || before == nullptr || after == nullptr ||
            !comm_socket::is_bytes(shared.bytes, shared.length)) {
            return comm_socket::refuse(EINVAL);
        }
        std::string value = before;
        part.offset = value.size();
        part.bytes = comm_socket::view_bytes(shared.bytes, shared.length);
        value += after;
        return comm_socket::write_pair(packet, name, value, &part);
    } catch (const std::exception&) {
        return comm_socket::refuse(ENOMEM);
    }
}

int comm_socket_v4_packet_write_end(comm_socket_v4_packet* packet) {
    if (packet == nullptr || packet->content->state != PacketState::WRITING) {
        return comm_socket::refuse(EINVAL);
    }
    packet->content->state = PacketState::COMPLETE;
    return 0;
}

const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* packet) {
    return packet == nullptr ? nullptr : packet->content->text->command.c_str();
}

size_t comm_socket_v4_packet_get_command_length(const comm_socket_v4_packet* packet) {
    return packet == nullptr ? 0 : packet->content->text->command.size();
}

const char* comm_socket_v4_packet_get_message(const comm_socket_v4_packet* packet) {
    return packet == nullptr ? nullptr : packet->content->text->message.c_str();
}

size_t comm_socket_v4_packet_get_message_length(const comm_socket_v4_packet* packet) {
    return packet == nullptr ? 0 : packet->content->text->message.size();
}

size_t comm_socket_v4_packet_get_argv_count(const comm_socket_v4_packet* packet) {
    return packet == nullptr ? 0 : packet->content->text->arguments.size();
}

const char* comm_socket_v4_packet_get_argv(const comm_socket_v4_packet* packet, size_t idx) {
    return comm_socket::c_string(comm_socket::argument_at(packet, idx));
}

size_t comm_socket_v4_packet_get_argv_length(const comm_socket_v4_packet* packet, size_t idx) {
    return comm_socket::length_of(comm_socket::argument_at(packet, idx));
}

size_t comm_socket_v4_packet_get_pair_count(const comm_socket_v4_packet* packet) {
    return packet == nullptr ? 0 : packet->content->text->pairs.size();
}

const char* comm_socket_v4_packet_get_pair_name(const comm_socket_v4_packet* packet, size_t idx) {
    return comm_socket::c_string(comm_socket::pair_name_at(packet, idx));
}

size_t comm_socket_v4_packet_get_pair_name_length(const comm_socket_v4_packet* packet, size_t idx) {
    return comm_socket::length_of(comm_socket::pair_name_at(packet, idx));
}

const char* comm_socket_v4_packet_get_pair_value(const comm_socket_v4_packet* packet, size_t idx) {
    return comm_socket::c_string(comm_socket::pair_value_at(packet, idx));
}

size_t comm_socket_v4_packet_get_pair_value_length(const comm_socket_v4_packet* packet, size_t idx) {
    return comm_socket::length_of(comm_socket::pair_value_at(packet, idx));
}

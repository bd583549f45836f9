#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>

#include "comm_socket/include/comm_socket_v4.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

Packet begun(const char* command = "command") {
    Packet packet(comm_socket_v4_packet_create());
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(packet.get(), 0, command, "message"), 0);
    return packet;
}

std::string dump_of(const comm_socket_v4_packet* packet) {
    char* text = nullptr;
    std::size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    comm_socket_v4_packet_dump_user_friendly(packet, stream);
    fclose(stream);
    std::string result(text, length);
    free(text);
    return result;
}

std::string pair_value(const comm_socket_v4_packet* packet, std::size_t idx) {
    return {comm_socket_v4_packet_get_pair_value(packet, idx),
            comm_socket_v4_packet_get_pair_value_length(packet, idx)};
}

// Expects the result -1 and this errno.
#define EXPECT_REFUSED(call, error) \
    do {                            \
        errno = 0;                  \
        EXPECT_EQ((call), -1);      \
        EXPECT_EQ(errno, (error));  \
    } while (false)

}  // namespace

TEST(packet, is_an_empty_request_when_created) {
    const Packet packet(comm_socket_v4_packet_create());
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->flags, COMM_SOCKET_V4_REQUEST);
    EXPECT_EQ(packet->request_id, 0u);
    EXPECT_EQ(packet->status, COMM_SOCKET_V4_STATUS_SUCCESS);
    EXPECT_STREQ(comm_socket_v4_packet_get_command(packet.get()), "");
    EXPECT_STREQ(comm_socket_v4_packet_get_message(packet.get()), "");
    EXPECT_EQ(comm_socket_v4_packet_get_argv_count(packet.get()), 0u);
    EXPECT_EQ(comm_socket_v4_packet_get_argv(packet.get(), 0), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_count(packet.get()), 0u);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_name(packet.get(), 0), nullptr);
}

TEST(packet, becomes_a_response_and_async_by_its_flags) {
    const Packet packet(comm_socket_v4_packet_create());
    comm_socket_v4_packet_set_async(packet.get(), 1);
    EXPECT_EQ(packet->flags, COMM_SOCKET_V4_REQUEST | COMM_SOCKET_V4_ASYNC);
    comm_socket_v4_packet_make_response(packet.get());
    EXPECT_EQ(packet->flags, COMM_SOCKET_V4_ASYNC);
    comm_socket_v4_packet_set_async(packet.get(), 0);
    EXPECT_EQ(packet->flags, 0u);
}

TEST(packet, keeps_what_is_written_in_order) {
    const Packet packet = begun();
    EXPECT_EQ(comm_socket_v4_packet_write_argv(packet.get(), "first"), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "a", "1"), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_argv(packet.get(), nullptr), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_argv_bytes(packet.get(), "x\0y", 3), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_argv_bytes(packet.get(), nullptr, 0), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "a", "2"), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_bytes(packet.get(), "b\0", 2, "", 0), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_end(packet.get()), 0);

    EXPECT_STREQ(comm_socket_v4_packet_get_command(packet.get()), "command");
    EXPECT_EQ(comm_socket_v4_packet_get_command_length(packet.get()), 7u);
    EXPECT_STREQ(comm_socket_v4_packet_get_message(packet.get()), "message");
    EXPECT_EQ(comm_socket_v4_packet_get_message_length(packet.get()), 7u);
    ASSERT_EQ(comm_socket_v4_packet_get_argv_count(packet.get()), 4u);
    EXPECT_STREQ(comm_socket_v4_packet_get_argv(packet.get(), 0), "first");
    EXPECT_EQ(comm_socket_v4_packet_get_argv(packet.get(), 1), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_get_argv_length(packet.get(), 1), 0u);
    EXPECT_STREQ(comm_socket_v4_packet_get_argv(packet.get(), 2), "x");
    EXPECT_EQ(comm_socket_v4_packet_get_argv_length(packet.get(), 2), 3u);
    EXPECT_STREQ(comm_socket_v4_packet_get_argv(packet.get(), 3), "");
    EXPECT_EQ(comm_socket_v4_packet_get_argv(packet.get(), 4), nullptr);
    ASSERT_EQ(comm_socket_v4_packet_get_pair_count(packet.get()), 3u);
    EXPECT_STREQ(comm_socket_v4_packet_get_pair_name(packet.get(), 1), "a");
    EXPECT_STREQ(comm_socket_v4_packet_get_pair_value(packet.get(), 1), "2");
    EXPECT_EQ(comm_socket_v4_packet_get_pair_value_length(packet.get(), 1), 1u);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_name_length(packet.get(), 2), 2u);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_value(packet.get(), 3), nullptr);
}

TEST(packet, is_written_only_between_begin_and_end) {
    const Packet packet(comm_socket_v4_packet_create());
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv(packet.get(), "x"), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair(packet.get(), "x", "y"), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_end(packet.get()), EINVAL);
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(packet.get(), 0, "c", "m"), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_end(packet.get()), 0);
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv(packet.get(), "x"), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair(packet.get(), "x", "y"), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_end(packet.get()), EINVAL);
    EXPECT_EQ(comm_socket_v4_packet_get_argv_count(packet.get()), 0u);
}

TEST(packet, discards_its_contents_when_it_is_begun_again) {
    const Packet packet = begun();
    ASSERT_EQ(comm_socket_v4_packet_write_argv(packet.get(), "x"), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_end(packet.get()), 0);
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(packet.get(), 0, "other", ""), 0);
    EXPECT_STREQ(comm_socket_v4_packet_get_command(packet.get()), "other");
    EXPECT_EQ(comm_socket_v4_packet_get_argv_count(packet.get()), 0u);
    EXPECT_EQ(comm_socket_v4_packet_write_argv(packet.get(), "y"), 0);
}

TEST(packet, takes_64_arguments_and_no_more) {
    const Packet packet = begun();
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(comm_socket_v4_packet_write_argv(packet.get(), i % 2 == 0 ? "x" : nullptr), 0);
    }
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv(packet.get(), "x"), EMSGSIZE);
    EXPECT_EQ(comm_socket_v4_packet_get_argv_count(packet.get()), 64u);
}

TEST(packet, takes_65536_pairs_and_no_more) {
    const Packet packet = begun();
    for (int i = 0; i < 65536; ++i) {
        ASSERT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "", ""), 0);
    }
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair(packet.get(), "", ""), EMSGSIZE);
    SharedBytes bytes("");
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "", "", bytes.lend(), ""),
                   EMSGSIZE);
    EXPECT_EQ(bytes.released, 1);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_count(packet.get()), 65536u);
}

TEST(packet, takes_a_body_of_256_mib_and_not_a_byte_more) {
    const Packet packet = begun("");  // 36 bytes and the 7 of the message
    const std::string value(268435456 - 36 - 7 - 8, 'v');
    EXPECT_REFUSED(
        comm_socket_v4_packet_write_nv_pair_bytes(packet.get(), "n", 1, value.data(), value.size()),
        EMSGSIZE);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair_bytes(packet.get(), "n", 1, value.data(),
                                                             std::numeric_limits<std::size_t>::max()),
                   EMSGSIZE);
    EXPECT_REFUSED(
        comm_socket_v4_packet_write_argv_bytes(packet.get(), "a", std::numeric_limits<std::size_t>::max()),
        EMSGSIZE);
    SharedBytes all_but_two(value.substr(2));
    EXPECT_REFUSED(
        comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "", "bb", all_but_two.lend(), "a"),
        EMSGSIZE);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_count(packet.get()), 0u);
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "", "b", all_but_two.lend(), "a"), 0);
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv(packet.get(), nullptr), EMSGSIZE);
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(packet.get(), 0, "", "message"), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_bytes(packet.get(), "", 0, value.data(), value.size()), 0);
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv(packet.get(), nullptr), EMSGSIZE);
}

TEST(packet, joins_a_shared_value_with_the_text_before_and_after_it) {
    SharedBytes bytes("na\0me");
    {
        const Packet packet = begun();
        EXPECT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "first", "1"), 0);
        EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "n", "7-", bytes.lend(), "-x"), 0);
        EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "n", "", bytes.lend(), ""), 0);
        EXPECT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "last", "2"), 0);
        EXPECT_EQ(comm_socket_v4_packet_write_end(packet.get()), 0);
        ASSERT_EQ(comm_socket_v4_packet_get_pair_count(packet.get()), 4u);
        EXPECT_EQ(pair_value(packet.get(), 0), "1");
        EXPECT_EQ(pair_value(packet.get(), 1), "7-" + bytes.text + "-x");
        EXPECT_EQ(pair_value(packet.get(), 2), bytes.text);
        EXPECT_EQ(pair_value(packet.get(), 3), "2");
        EXPECT_THAT(dump_of(packet.get()), testing::HasSubstr("  pair \"n\" = \"7-na\\x00me-x\"\n"));
        EXPECT_EQ(bytes.released, 0);
    }
    EXPECT_EQ(bytes.released, 2);
}

TEST(packet, releases_shared_bytes_once_when_it_is_begun_again) {
    SharedBytes bytes("name");
    const Packet packet = begun();
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "n", "", bytes.lend(), ""), 0);
    EXPECT_EQ(pair_value(packet.get(), 0), "name");
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(packet.get(), 0, "", ""), 0);
    EXPECT_EQ(bytes.released, 1);
    SharedBytes other("other");
    EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "n", "an", other.lend(), ""), 0);
    EXPECT_EQ(pair_value(packet.get(), 0), "another");
}

TEST(packet, releases_shared_bytes_before_it_refuses_them) {
    SharedBytes bytes("name");
    const auto write = [&bytes](comm_socket_v4_packet* packet, const char* name, const char* before,
                                const char* after, std::size_t length = 4) {
        comm_socket_v4_shared_bytes shared = bytes.lend();
        shared.length = length;
        return comm_socket_v4_packet_write_nv_pair_shared(packet, name, before, shared, after);
    };
    const Packet packet = begun();
    EXPECT_REFUSED(write(nullptr, "n", "", ""), EINVAL);
    EXPECT_REFUSED(write(packet.get(), nullptr, "", ""), EINVAL);
    EXPECT_REFUSED(write(packet.get(), "n", nullptr, ""), EINVAL);
    EXPECT_REFUSED(write(packet.get(), "n", "", nullptr), EINVAL);
    EXPECT_REFUSED(write(packet.get(), "n", "", "", std::size_t{1} << 28), EMSGSIZE);
    EXPECT_REFUSED(write(packet.get(), "n", "", "", std::numeric_limits<std::size_t>::max()), EMSGSIZE);
    EXPECT_EQ(bytes.released, 6);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_count(packet.get()), 0u);
    comm_socket_v4_shared_bytes nothing_to_call = bytes.lend();
    nothing_to_call.release = nullptr;
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair_shared(packet.get(), "n", "", nothing_to_call, ""),
                   EINVAL);
    EXPECT_EQ(comm_socket_v4_packet_write_end(packet.get()), 0);
    EXPECT_REFUSED(write(packet.get(), "n", "", ""), EINVAL);
    EXPECT_EQ(bytes.released, 7);
}

TEST(packet, refuses_null_strings_and_a_reserved_value) {
    const Packet packet(comm_socket_v4_packet_create());
    EXPECT_REFUSED(comm_socket_v4_packet_begin_writing(packet.get(), 0, nullptr, ""), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_begin_writing(packet.get(), 0, "", nullptr), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_begin_writing(packet.get(), 1, "", ""), EINVAL);
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(packet.get(), 0, "", ""), 0);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair(packet.get(), nullptr, ""), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair(packet.get(), "", nullptr), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv_bytes(packet.get(), nullptr, 1), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair_bytes(packet.get(), nullptr, 1, "", 0), EINVAL);
}

TEST(packet, a_null_packet_is_refused_everywhere_but_may_be_released) {
    EXPECT_EQ(comm_socket_v4_packet_release(nullptr), nullptr);
    comm_socket_v4_packet_make_response(nullptr);
    comm_socket_v4_packet_set_async(nullptr, 1);
    comm_socket_v4_packet_dump_user_friendly(nullptr, stderr);
    EXPECT_REFUSED(comm_socket_v4_packet_begin_writing(nullptr, 0, "", ""), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_argv(nullptr, ""), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_nv_pair(nullptr, "", ""), EINVAL);
    EXPECT_REFUSED(comm_socket_v4_packet_write_end(nullptr), EINVAL);
    EXPECT_EQ(comm_socket_v4_packet_get_command(nullptr), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_get_command_length(nullptr), 0u);
    EXPECT_EQ(comm_socket_v4_packet_get_message(nullptr), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_get_argv_count(nullptr), 0u);
    EXPECT_EQ(comm_socket_v4_packet_get_argv(nullptr, 0), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_count(nullptr), 0u);
    EXPECT_EQ(comm_socket_v4_packet_get_pair_value(nullptr, 0), nullptr);
}

TEST(packet_dump, shows_every_field) {
    const Packet packet = begun("reload");
    comm_socket_v4_packet_set_async(packet.get(), 1);
    packet->request_id = 12;
    packet->status = 6;
    ASSERT_EQ(comm_socket_v4_packet_write_argv(packet.get(), "now"), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_argv(packet.get(), nullptr), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "depth", "3"), 0);
    EXPECT_EQ(dump_of(packet.get()),
              "Packet: request, async, id 12, status 6\n"
              "  command: \"reload\"\n"
              "  message: \"message\"\n"
              "  argument 0: \"now\"\n"
              "  argument 1 is absent\n"
              "  pair \"depth\" = \"3\"\n");
}

TEST(packet_dump, escapes_terminal_control_bytes) {
    const Packet packet = begun("\x1b[2J\n\"\\\x7f\xff~ ");
    comm_socket_v4_packet_make_response(packet.get());
    EXPECT_EQ(dump_of(packet.get()),
              "Packet: response, id 0, status 0\n"
              "  command: \"\\x1B[2J\\x0A\\\"\\\\\\x7F\\xFF~ \"\n"
              "  message: \"message\"\n");
}

TEST(packet_dump, cuts_a_string_above_1024_bytes) {
    EXPECT_THAT(dump_of(begun(std::string(1024, 'c').c_str()).get()),
                testing::HasSubstr("\"" + std::string(1024, 'c') + "\"\n"));
    EXPECT_THAT(dump_of(begun(std::string(1025, 'c').c_str()).get()),
                testing::HasSubstr("\"" + std::string(1024, 'c') + "\"... (1025 bytes)\n"));
}

TEST(packet_dump, shows_at_most_256_pairs) {
    const Packet packet = begun();
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "n", std::to_string(i).c_str()), 0);
    }
    EXPECT_TRUE(dump_of(packet.get()).ends_with("  pair \"n\" = \"255\"\n"));
    ASSERT_EQ(comm_socket_v4_packet_write_nv_pair(packet.get(), "n", "256"), 0);
    EXPECT_TRUE(dump_of(packet.get()).ends_with("  pair \"n\" = \"255\"\n  ... (257 pairs)\n"));
}

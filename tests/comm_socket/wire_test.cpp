#include "comm_socket/wire.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "comm_socket/frame_buffer.h"
#include "tests/comm_socket/raw_peer.h"

using comm_socket::FrameBuffer;
using comm_socket::FrameHead;
using comm_socket::FrameLimits;
using comm_socket::FrameState;
using comm_socket::FrameText;
using comm_socket::OutgoingFrame;
using comm_socket::REPLY_LIMITS;
using comm_socket::REQUEST_LIMITS;

namespace {

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// A copy of the bytes that ends at a page which cannot be read.
class GuardedCopy {
  public:
    explicit GuardedCopy(const std::string& bytes) : size(bytes.size()) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t readable = (size + page - 1) / page * page;
        mapped = readable + page;
        base = static_cast<unsigned char*>(
            mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(base, MAP_FAILED);
        EXPECT_EQ(mprotect(base + readable, page, PROT_NONE), 0);
        start = base + readable - size;
        if (size > 0) {
            std::memcpy(start, bytes.data(), size);
        }
    }
    ~GuardedCopy() { munmap(base, mapped); }
    GuardedCopy(const GuardedCopy&) = delete;
    GuardedCopy& operator=(const GuardedCopy&) = delete;

    [[nodiscard]] unsigned char* begin() const { return start; }
    [[nodiscard]] unsigned char* end() const { return start + size; }

  private:
    std::size_t size;
    std::size_t mapped = 0;
    unsigned char* base = nullptr;
    unsigned char* start = nullptr;
};

bool decodes(const std::string& body, const FrameLimits& limits, FrameHead* head, FrameText* text) {
    const GuardedCopy copy(body);
    return comm_socket::decode_body(copy.begin(), copy.end(), limits, head, text);
}

bool decodes(const std::string& body, const FrameLimits& limits) {
    FrameHead head;
    FrameText text;
    return decodes(body, limits, &head, &text);
}

std::string rich_body() {
    return frame_body(3, 0x0102030405060708, 0xFFFFFFFFFFFFFFFF, "command", std::string("a\0b", 3),
                      {"one", std::nullopt, "", "\xff\x80"},
                      {{"name", "value"}, {"", ""}, {"name", "again"}});
}

}  // namespace

TEST(wire, the_id_of_a_frame_is_known_from_its_first_20_bytes_on) {
    const std::string frame = frame_around(rich_body());
    for (std::size_t length = 0; length <= frame.size(); ++length) {
        const GuardedCopy copy(frame.substr(0, length));
        FrameHead head;
        EXPECT_EQ(comm_socket::peek_head(copy.begin(), copy.end(), REQUEST_LIMITS, &head), length >= 20)
            << length;
        EXPECT_EQ(head.flags, length >= 20 ? 3u : 0u);
        EXPECT_EQ(head.request_id, length >= 20 ? 0x0102030405060708u : 0u);
    }
    const GuardedCopy broken(frame_around(rich_body(), 5));
    FrameHead head;
    EXPECT_FALSE(comm_socket::peek_head(broken.begin(), broken.end(), REQUEST_LIMITS, &head));
}

TEST(wire, decodes_every_field) {
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(decodes(rich_body(), REQUEST_LIMITS, &head, &text));
    EXPECT_EQ(head.flags, 3u);
    EXPECT_EQ(head.request_id, 0x0102030405060708u);
    EXPECT_EQ(head.status, UINT64_MAX);
    EXPECT_EQ(text.command, "command");
    EXPECT_EQ(text.message, std::string("a\0b", 3));
    EXPECT_EQ(text.arguments, (Arguments{"one", std::nullopt, "", "\xff\x80"}));
    EXPECT_EQ(text.pairs, (Pairs{{"name", "value"}, {"", ""}, {"name", "again"}}));
}

TEST(wire, encodes_a_decoded_frame_to_the_same_bytes) {
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(decodes(rich_body(), REQUEST_LIMITS, &head, &text));
    EXPECT_EQ(comm_socket::encoded_body_bytes(text), rich_body().size());
    EXPECT_EQ(comm_socket::encode_frame(head, text), frame_around(rich_body()));
}

TEST(wire, an_outgoing_frame_points_to_long_arguments_and_copies_short_ones) {
    const std::string long_argument(20000, 'l');
    const Arguments arguments = {"one", std::nullopt, long_argument, "two"};
    const auto text = std::make_shared<const FrameText>(FrameText{
        .command = "command", .message = "", .arguments = arguments, .pairs = {}, .shared_parts = {}});
    const OutgoingFrame frame(FrameHead{}, text);
    std::string sent;
    bool pointed_to = false;
    for (std::size_t i = 0; i < frame.piece_count(); ++i) {
        sent += frame.piece(i);
        pointed_to = pointed_to || frame.piece(i).data() == text->arguments[2]->data();
    }
    EXPECT_EQ(sent, frame_around(frame_body(0, 0, 0, "command", "", arguments, {})));
    EXPECT_EQ(frame.size(), sent.size());
    EXPECT_TRUE(pointed_to);
}

TEST(wire, encodes_only_if_there_is_room_for_the_whole_frame) {
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(decodes(rich_body(), REQUEST_LIMITS, &head, &text));
    const std::string frame = frame_around(rich_body());
    for (std::size_t room = 0; room <= frame.size(); ++room) {
        const GuardedCopy target(std::string(room, 'x'));
        unsigned char* d = target.begin();
        const bool fits = comm_socket::encode_frame(d, target.end(), head, text);
        EXPECT_EQ(fits, room == frame.size()) << room;
        EXPECT_EQ(d, fits ? target.end() : target.begin()) << room;
    }
}

TEST(wire, a_body_truncated_at_any_byte_is_broken_and_leaves_the_target_unchanged) {
    const std::string body = rich_body();
    for (std::size_t length = 0; length < body.size(); ++length) {
        FrameHead head = {9, 9, 9};
        FrameText text;
        text.command = "before";
        EXPECT_FALSE(decodes(body.substr(0, length), REQUEST_LIMITS, &head, &text)) << length;
        EXPECT_EQ(head.flags, 9u);
        EXPECT_EQ(text.command, "before");
        EXPECT_TRUE(text.arguments.empty() && text.pairs.empty());
    }
}

TEST(wire, a_byte_left_over_is_broken) {
    EXPECT_FALSE(decodes(rich_body() + '\0', REQUEST_LIMITS));
}

TEST(wire, unknown_flags_are_broken) {
    EXPECT_TRUE(decodes(frame_body(3, 1, 0, "x", "", {}, {}), REQUEST_LIMITS));
    for (std::uint64_t flags : {4u, 8u, 0x80000000u}) {
        EXPECT_FALSE(decodes(frame_body(flags, 1, 0, "x", "", {}, {}), REQUEST_LIMITS)) << flags;
    }
}

TEST(wire, counts_are_accepted_at_their_limit_and_not_beyond) {
    const struct {
        const FrameLimits& limits;
        std::size_t arguments;
        std::size_t pairs;
    } rows[] = {{REQUEST_LIMITS, 64, 64}, {REPLY_LIMITS, 64, 65536}};
    for (const auto& row : rows) {
        const Pairs pairs(row.pairs);
        EXPECT_TRUE(decodes(frame_body(1, 1, 0, "", "", Arguments(row.arguments), pairs), row.limits));
        EXPECT_FALSE(decodes(frame_body(1, 1, 0, "", "", Arguments(row.arguments + 1), pairs), row.limits));
        const Pairs more_pairs(row.pairs + 1);
        EXPECT_FALSE(decodes(frame_body(1, 1, 0, "", "", {}, more_pairs), row.limits));
    }
}

TEST(wire, a_count_of_more_pairs_than_there_are_bytes_for_is_broken) {
    const std::string start = be32(0) + be64(1) + be64(0) + counted("") + counted("") + be32(0);
    EXPECT_TRUE(decodes(start + be32(1) + counted("") + counted(""), REPLY_LIMITS));
    EXPECT_FALSE(decodes(start + be32(2) + counted("") + counted(""), REPLY_LIMITS));
    EXPECT_FALSE(decodes(start + be32(65536), REPLY_LIMITS));
    EXPECT_FALSE(decodes(start + be32(0xFFFFFFFF), REPLY_LIMITS));
}

TEST(wire, a_string_longer_than_the_body_is_broken) {
    const std::string start = be32(0) + be64(1) + be64(0);
    const std::string end = counted("") + be32(0) + be32(0);
    EXPECT_TRUE(decodes(start + be32(1) + "x" + end, REQUEST_LIMITS));
    for (std::uint64_t length : {1000u, 0x7FFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        EXPECT_FALSE(decodes(start + be32(length) + "x" + end, REQUEST_LIMITS)) << length;
    }
}

TEST(wire, a_header_is_checked_byte_by_byte) {
    const std::string good = frame_around(rich_body()).substr(0, 8);
    std::size_t body_bytes = 0;
    for (std::size_t length = 0; length < 8; ++length) {
        const GuardedCopy part(good.substr(0, length));
        EXPECT_EQ(comm_socket::decode_header(part.begin(), part.end(), REQUEST_LIMITS, &body_bytes),
                  FrameState::INCOMPLETE);
    }
    const GuardedCopy whole(good);
    EXPECT_EQ(comm_socket::decode_header(whole.begin(), whole.end(), REQUEST_LIMITS, &body_bytes),
              FrameState::COMPLETE);
    EXPECT_EQ(body_bytes, rich_body().size());
    for (std::size_t wrong = 0; wrong < 4; ++wrong) {
        std::string bad = good.substr(0, wrong + 1);
        bad[wrong] = static_cast<char>(bad[wrong] + 1);
        const GuardedCopy part(bad);
        EXPECT_EQ(comm_socket::decode_header(part.begin(), part.end(), REQUEST_LIMITS, &body_bytes),
                  FrameState::BROKEN)
            << wrong;
    }
}

TEST(wire, body_lengths_are_accepted_at_their_limits_and_not_beyond) {
    const struct {
        const FrameLimits& limits;
        std::uint64_t length;
        FrameState state;
    } rows[] = {
        {REQUEST_LIMITS, 35, FrameState::BROKEN},         {REQUEST_LIMITS, 36, FrameState::COMPLETE},
        {REQUEST_LIMITS, 2097152, FrameState::COMPLETE},  {REQUEST_LIMITS, 2097153, FrameState::BROKEN},
        {REQUEST_LIMITS, 0xFFFFFFFF, FrameState::BROKEN}, {REPLY_LIMITS, 35, FrameState::BROKEN},
        {REPLY_LIMITS, 268435456, FrameState::COMPLETE},  {REPLY_LIMITS, 268435457, FrameState::BROKEN},
        {REPLY_LIMITS, 0xFFFFFFFF, FrameState::BROKEN},   {REPLY_LIMITS, 0, FrameState::BROKEN},
    };
    for (const auto& row : rows) {
        const std::string header = std::string("CS\4\0", 4) + be32(row.length);
        std::size_t body_bytes = 0;
        EXPECT_EQ(comm_socket::decode_header(bytes_of(header), bytes_of(header) + 8, row.limits, &body_bytes),
                  row.state)
            << row.length;
    }
}

TEST(wire, within_limits_agrees_with_the_receiver) {
    FrameText text;
    text.command = std::string(2097152 - 36, 'c');
    EXPECT_TRUE(comm_socket::within_limits({1, 1, 0}, text, REQUEST_LIMITS));
    EXPECT_TRUE(decodes(comm_socket::encode_frame({1, 1, 0}, text).substr(8), REQUEST_LIMITS));
    text.command += 'c';
    EXPECT_FALSE(comm_socket::within_limits({1, 1, 0}, text, REQUEST_LIMITS));
    EXPECT_FALSE(decodes(comm_socket::encode_frame({1, 1, 0}, text).substr(8), REQUEST_LIMITS));
    EXPECT_TRUE(comm_socket::within_limits({0, 1, 0}, text, REPLY_LIMITS));
    EXPECT_FALSE(comm_socket::within_limits({4, 1, 0}, text, REPLY_LIMITS));
}

TEST(frame_buffer, finds_frames_in_pieces_of_any_size) {
    const std::string stream = frame_around(rich_body()) + request_frame(2, "hello") +
                               frame_around(rich_body()) + request_frame(4, "x");
    for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameBuffer buffer(REQUEST_LIMITS);
        std::vector<std::string> commands;
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            const std::string part = stream.substr(at, piece);
            buffer.append(bytes_of(part), part.size());
            while (buffer.state() == FrameState::COMPLETE) {
                FrameHead head;
                FrameText text;
                ASSERT_TRUE(buffer.take(&head, &text));
                commands.push_back(text.command);
            }
            ASSERT_EQ(buffer.state(), FrameState::INCOMPLETE);
        }
        EXPECT_EQ(commands, (std::vector<std::string>{"command", "hello", "command", "x"})) << piece;
        EXPECT_EQ(buffer.size(), 0u);
    }
}

TEST(frame_buffer, a_broken_body_stays_in_the_buffer) {
    FrameBuffer buffer(REQUEST_LIMITS);
    const std::string frame = frame_around(rich_body() + "surplus");
    buffer.append(bytes_of(frame), frame.size());
    ASSERT_EQ(buffer.state(), FrameState::COMPLETE);
    FrameHead head;
    FrameText text;
    EXPECT_FALSE(buffer.take(&head, &text));
    EXPECT_EQ(buffer.size(), frame.size());
    buffer.clear();
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.state(), FrameState::INCOMPLETE);
}

#include "rtmp/shared_payload.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/connection_fixture.h"

namespace {

std::string text_of(const SharedPayload::Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data), bytes.length};
}

SharedPayload lay_out(const std::string& payload, std::uint32_t chunk_size,
                      std::uint32_t chunk_stream_id = 4) {
    return SharedPayload::lay_out(make_packet(9, 0, payload, chunk_stream_id).chunk, chunk_size);
}

}  // namespace

TEST(shared_payload, has_a_continuation_header_between_chunks) {
    EXPECT_EQ(text_of(lay_out("abcdefg", 3).laid_out()),
              "abc\xC4"
              "def\xC4"
              "g");
    EXPECT_EQ(text_of(lay_out("abcdef", 3).laid_out()),
              "abc\xC4"
              "def");
    EXPECT_EQ(text_of(lay_out("abc", 3).laid_out()), "abc");
    EXPECT_EQ(text_of(lay_out("abcdef", 3, 64).laid_out()), std::string("abc\xC0\0"
                                                                        "def",
                                                                        8));
    EXPECT_EQ(text_of(lay_out("abcdef", 3, 320).laid_out()), std::string("abc\xC1\0\x01"
                                                                         "def",
                                                                         9));
}

TEST(shared_payload, gives_its_plain_bytes_from_any_offset) {
    const std::string payload = "abcdefgh";
    const SharedPayload shared = lay_out(payload, 3, 320);
    for (std::uint32_t offset = 0; offset < payload.size(); ++offset) {
        const std::string run = text_of(shared.plain_run(offset));
        EXPECT_EQ(run, payload.substr(offset, 3 - offset % 3)) << offset;
    }
}

TEST(shared_payload,
     of_one_chunk_is_laid_out_for_every_size_that_holds_it_and_a_longer_one_only_for_its_own) {
    const SharedPayload shared = lay_out(std::string(300, 'x'), 128);
    EXPECT_TRUE(shared.is_laid_out_for(128));
    EXPECT_FALSE(shared.is_laid_out_for(127));
    EXPECT_FALSE(shared.is_laid_out_for(4096));
    const SharedPayload one_chunk = lay_out(std::string(128, 'x'), 128);
    EXPECT_TRUE(one_chunk.is_laid_out_for(4096));
    EXPECT_TRUE(one_chunk.is_laid_out_for(129));
    EXPECT_FALSE(one_chunk.is_laid_out_for(127));
}

TEST(shared_payload, holds_nothing_for_an_empty_or_too_large_payload) {
    EXPECT_EQ(SharedPayload().payload_bytes(), 0U);
    EXPECT_EQ(lay_out("", 128).payload_bytes(), 0U);
    EXPECT_EQ(lay_out(std::string(MAX_PAYLOAD_BYTES, 'x'), 128).payload_bytes(), MAX_PAYLOAD_BYTES);
    RTMP_Packet pkt;
    pkt.chunk.message.data = new unsigned char[MAX_PAYLOAD_BYTES + 1];
    pkt.chunk.message.data_length = MAX_PAYLOAD_BYTES + 1;
    EXPECT_EQ(SharedPayload::lay_out(pkt.chunk, 128).payload_bytes(), 0U);
}

TEST(shared_payload, moves_and_is_released_once) {
    SharedPayload first = lay_out("abc", 128);
    SharedPayload second = first.share();
    EXPECT_EQ(first.laid_out().data, second.laid_out().data);
    SharedPayload moved = std::move(first);
    EXPECT_EQ(first.payload_bytes(), 0U);  // NOLINT(bugprone-use-after-move): that is what is tested
    moved = std::move(second);
    EXPECT_EQ(text_of(moved.laid_out()), "abc");
    moved.release();
    moved.release();
    EXPECT_EQ(moved.payload_bytes(), 0U);
}

// For the thread and address sanitizers: the last holder frees it, and no thread reads it afterwards.
TEST(shared_payload, is_freed_by_the_last_of_many_threads) {
    for (int round = 0; round < 200; ++round) {
        SharedPayload shared = lay_out(std::string(1000, 'x'), 128);
        std::vector<std::thread> players;
        for (int i = 0; i < 4; ++i) {
            players.emplace_back([share = shared.share()]() mutable {
                EXPECT_EQ(text_of(share.plain_run(0)), std::string(128, 'x'));
                share.release();
            });
        }
        shared.release();
        for (std::thread& player : players) {
            player.join();
        }
    }
}

#include "relay/codec_lock.h"

#include <gtest/gtest.h>

#include <string>

#include "rtmp/message_types.h"
#include "tests/support/connection_fixture.h"

namespace {

struct LockCase {
    const char* name;
    std::int32_t before;
    std::uint32_t metadata_codec_id;
    std::uint8_t type;
    std::string payload;
    CodecLock result;
    std::int32_t after;
};

const std::vector<LockCase> LOCK_CASES{
    {"audio locks on its high nibble", -1, 0, MESSAGE_AUDIO, "\xAF\x01", CodecLock::FROM_PAYLOAD, 10},
    {"audio codec 0 is a codec", -1, 0, MESSAGE_AUDIO, "\x0F\x01", CodecLock::FROM_PAYLOAD, 0},
    {"audio codec 15 is a codec", -1, 0, MESSAGE_AUDIO, "\xF0\x01", CodecLock::FROM_PAYLOAD, 15},
    {"video locks on its low nibble", -1, 0, MESSAGE_VIDEO, "\x27\x01", CodecLock::FROM_PAYLOAD, 7},
    {"video extended header locks on the packet type", -1, 0, MESSAGE_VIDEO, "\x91hvc1",
     CodecLock::FROM_PAYLOAD, 1},
    {"same audio codec", 10, 0, MESSAGE_AUDIO, "\xAE\x01", CodecLock::KEPT, 10},
    {"same video codec, other frame type", 7, 0, MESSAGE_VIDEO, "\x17\x01", CodecLock::KEPT, 7},
    {"other audio codec", 10, 0, MESSAGE_AUDIO, "\x2F\x01", CodecLock::FORMAT_CHANGED, 10},
    {"other video codec", 7, 0, MESSAGE_VIDEO, "\x22\x01", CodecLock::FORMAT_CHANGED, 7},
    {"codec 0 after another", 7, 0, MESSAGE_VIDEO, "\x20\x01", CodecLock::FORMAT_CHANGED, 7},
    {"no payload", -1, 0, MESSAGE_AUDIO, "", CodecLock::KEPT, -1},
    {"one byte", -1, 0, MESSAGE_AUDIO, "\xAF", CodecLock::KEPT, -1},
    {"one byte of another codec", 10, 0, MESSAGE_AUDIO, "\x2F", CodecLock::KEPT, 10},
    {"metadata before the first message", -1, 10, MESSAGE_AUDIO, "\x2F\x01", CodecLock::FROM_METADATA, 10},
    {"metadata says what is locked", 10, 10, MESSAGE_AUDIO, "\x2F\x01", CodecLock::KEPT, 10},
    {"changed metadata locks anew", 10, 2, MESSAGE_AUDIO, "\xAF\x01", CodecLock::FROM_METADATA, 2},
    {"metadata needs no payload", -1, 7, MESSAGE_VIDEO, "", CodecLock::FROM_METADATA, 7},
    {"metadata with a code of four characters", -1, 0x61766331, MESSAGE_VIDEO, "\x27\x01",
     CodecLock::FROM_METADATA, 0x61766331},
    {"metadata with the highest id", 7, 0xFFFFFFFF, MESSAGE_VIDEO, "\x27\x01", CodecLock::FROM_METADATA, -1},
};

}  // namespace

TEST(codec_lock, follows_the_metadata_or_else_the_first_payload) {
    for (const LockCase& row : LOCK_CASES) {
        std::int32_t lock_type = row.before;
        const RTMP_Packet pkt = make_packet(row.type, 0, row.payload);
        EXPECT_EQ(check_codec_lock(lock_type, row.metadata_codec_id, pkt), row.result) << row.name;
        EXPECT_EQ(lock_type, row.after) << row.name;
    }
}

TEST(codec_lock, of_a_message_with_a_length_but_no_bytes_is_unchanged) {
    RTMP_Packet pkt = make_packet(MESSAGE_AUDIO, 0, "");
    pkt.chunk.message.data_length = 2;
    std::int32_t lock_type = NO_CODEC_LOCK;
    EXPECT_EQ(check_codec_lock(lock_type, 0, pkt), CodecLock::KEPT);
    EXPECT_EQ(lock_type, NO_CODEC_LOCK);
}

TEST(codec_lock, of_a_player_is_taken_over_once_from_its_publisher) {
    std::int32_t player = NO_CODEC_LOCK;
    EXPECT_TRUE(agree_on_codec(player, NO_CODEC_LOCK));
    EXPECT_EQ(player, NO_CODEC_LOCK);
    EXPECT_TRUE(agree_on_codec(player, 10));
    EXPECT_EQ(player, 10);
    EXPECT_TRUE(agree_on_codec(player, 10));
    EXPECT_FALSE(agree_on_codec(player, 2));
    EXPECT_FALSE(agree_on_codec(player, NO_CODEC_LOCK));
    EXPECT_EQ(player, 10);
}

TEST(codec_lock, prints_a_codec_id_as_its_four_bytes_up_to_the_first_zero) {
    EXPECT_STREQ(fourcc_text(0x61766331).text, "avc1");
    EXPECT_STREQ(fourcc_text(0x6D703461).text, "mp4a");
    EXPECT_STREQ(fourcc_text(0x61760031).text, "av");
    EXPECT_STREQ(fourcc_text(10).text, "");
    EXPECT_STREQ(fourcc_text(0xFFFFFFFF).text, "\xFF\xFF\xFF\xFF");
}

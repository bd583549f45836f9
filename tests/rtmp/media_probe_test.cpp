#include "rtmp/media_probe.h"

#include <gtest/gtest.h>

#include "tests/support/connection_fixture.h"

namespace {

struct Probe {
    std::string payload;
    bool aac_header;
    bool video_header;
};

}  // namespace

TEST(media_probe, sequence_headers_are_recognized_by_the_first_two_bytes) {
    const std::vector<Probe> probes{
        {std::string("\xAF\x00", 2), true, false},
        {std::string("\xAF\x01", 2), false, false},
        {std::string("\xA0\x00", 2), true, true},  // read as video: extended header, packet type 0
        {std::string("\x2F\x00", 2), false, false},
        {std::string("\x17\x00", 2), false, true},
        {std::string("\x27\x00", 2), false, true},
        {std::string("\x17\x01", 2), false, false},
        {std::string("\x90\x00", 2), false, true},
        {std::string("\x90\xFF", 2), false, true},
        {std::string("\x91\x00", 2), false, false},
        {std::string("\x97\x00", 2), false, true},
        {std::string("\xAF", 1), false, false},
        {std::string("\x90", 1), false, false},
        {std::string(), false, false},
    };
    for (const Probe& probe : probes) {
        const RTMP_Packet pkt = make_packet(9, 0, probe.payload);
        EXPECT_EQ(is_aac_sequence_header(pkt), probe.aac_header) << testing::PrintToString(probe.payload);
        EXPECT_EQ(is_video_sequence_header(pkt), probe.video_header) << testing::PrintToString(probe.payload);
    }
}

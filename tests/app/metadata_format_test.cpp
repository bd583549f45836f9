#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "amf/amf_value.h"
#include "app/metadata.h"

namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

AMF_Value object_with(const std::string& key, double number) {
    AMF_Value value;
    value.type = AMF_Type::Object;
    value.member(key).set_number(number);
    return value;
}

bool same(const StreamFormat& a, const StreamFormat& b) {
    return a.video_width == b.video_width && a.video_height == b.video_height &&
           a.audio_codec_id == b.audio_codec_id && a.video_codec_id == b.video_codec_id;
}

}  // namespace

TEST(metadata_format, is_unknown_without_members) {
    EXPECT_TRUE(same(read_stream_format(AMF_Value{}), StreamFormat{}));
}

TEST(metadata_format, reads_four_members_of_an_object_or_array) {
    AMF_Value metadata;
    for (const AMF_Type type : {AMF_Type::Object, AMF_Type::ECMAArray}) {
        metadata.type = type;
        metadata.member("width").set_number(1280);
        metadata.member("height").set_number(720);
        metadata.member("audiocodecid").set_number(10);
        metadata.member("videocodecid").set_number(7);
        metadata.member("Width").set_number(1);
        EXPECT_TRUE(same(read_stream_format(metadata), StreamFormat{1280, 720, 10, 7}));
    }
}

TEST(metadata_format, rounds_sizes_half_up_and_ignores_what_does_not_fit_31_bits) {
    struct Case {
        double number;
        std::int32_t size;
    };
    for (const Case& row : std::vector<Case>{{1280.4, 1280},
                                             {719.5, 720},
                                             {0.5, 1},
                                             {0.49, 0},
                                             {0, 0},
                                             {-0.5, 0},
                                             {-0.6, -1},
                                             {-720, -720},
                                             {2147483647, 2147483647},
                                             {2147483647.4, 2147483647},
                                             {2147483647.5, -1},
                                             {-2147483648.0, std::numeric_limits<std::int32_t>::min()},
                                             {-2147483649.0, -1},
                                             {1e300, -1},
                                             {INFINITE, -1},
                                             {-INFINITE, -1},
                                             {NOT_A_NUMBER, -1}}) {
        EXPECT_EQ(read_stream_format(object_with("width", row.number)).video_width, row.size) << row.number;
        EXPECT_EQ(read_stream_format(object_with("height", row.number)).video_height, row.size) << row.number;
    }
}

TEST(metadata_format, rounds_codec_ids_half_up_and_ignores_what_does_not_fit_32_bits) {
    struct Case {
        double number;
        std::uint32_t codec_id;
    };
    for (const Case& row : std::vector<Case>{{10, 10},
                                             {9.5, 10},
                                             {0.4, 0},
                                             {-0.5, 0},
                                             {-1, 0},
                                             {1635148593, 0x61766331},
                                             {4294967295, 0xFFFFFFFF},
                                             {4294967296, 0},
                                             {1e300, 0},
                                             {INFINITE, 0},
                                             {-INFINITE, 0},
                                             {NOT_A_NUMBER, 0}}) {
        EXPECT_EQ(read_stream_format(object_with("audiocodecid", row.number)).audio_codec_id, row.codec_id)
            << row.number;
        EXPECT_EQ(read_stream_format(object_with("videocodecid", row.number)).video_codec_id, row.codec_id)
            << row.number;
    }
}

TEST(metadata_format, ignores_members_that_are_not_numbers) {
    AMF_Value metadata;
    metadata.type = AMF_Type::Object;
    metadata.member("width").set_string("1280");
    metadata.member("height").set_null();
    metadata.member("videocodecid").set_string("avc1");
    AMF_Value& boolean = metadata.member("audiocodecid");
    boolean.set_number(10);
    boolean.type = AMF_Type::Boolean;
    EXPECT_TRUE(same(read_stream_format(metadata), StreamFormat{}));
}

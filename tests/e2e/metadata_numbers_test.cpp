// Invalid picture sizes in metadata: a number out of range counts as absent, with no undefined behavior.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using Limits = std::numeric_limits<double>;

const std::vector<double> NUMBERS_THAT_NEVER_FIT = {Limits::quiet_NaN(),
                                                    -Limits::quiet_NaN(),
                                                    Limits::signaling_NaN(),
                                                    Limits::infinity(),
                                                    -Limits::infinity(),
                                                    1e300,
                                                    -1e300,
                                                    Limits::max(),
                                                    Limits::lowest(),
                                                    4294967296.0,
                                                    4294967306.0,
                                                    -1.0,
                                                    -2147483649.0,
                                                    9223372036854775808.0,
                                                    18446744073709551616.0};

Bytes metadata_message(const Bytes& value) {
    return amf_string("onMetaData") + value;
}

}  // namespace

TEST(metadata_numbers, sizes_that_do_not_fit_or_are_not_positive_are_not_recorded_for_the_player) {
    std::vector<double> sizes = NUMBERS_THAT_NEVER_FIT;
    sizes.insert(sizes.end(), {2147483648.0, 4294967295.0, 2147483647.5, 0.0, -0.0, 0.49, -0.5, -0.51,
                               Limits::denorm_min(), -2147483648.0});
    for (const char* key : {"width", "height"}) {
        ServerProcess server;
        RtmpClient player = playing_client("cam1");
        RtmpClient publisher = publishing_client("cam1");
        for (const double size : sizes) {
            const Bytes value = amf_object({{key, amf_number(size)}});
            publisher.send_metadata(value);
            EXPECT_EQ(to_hex(player.expect_message(MSG_DATA).payload), to_hex(metadata_message(value)));
        }
        // This is the first size sent to the player.
        publisher.send_metadata(amf_object({{key, amf_number(640)}}));
        (void)player.expect_message(MSG_DATA);
        for (const double size : sizes) {
            publisher.send_metadata(amf_object({{key, amf_number(size)}}));
            (void)player.expect_message(MSG_DATA);
        }
        EXPECT_EQ(server.count(std::string(key) + " changed"), 0U);
        publisher.send_metadata(amf_object({{key, amf_number(641)}}));
        player.expect_closed_without_answer();
        server.wait_for_line(std::string(key) + " changed");
    }
}

TEST(metadata_numbers, sizes_are_rounded_half_up_before_they_are_compared) {
    struct Row {
        double first;
        double second;
        bool same;
    };
    const std::vector<Row> rows = {{1280.4, 1280, true},
                                   {1279.5, 1280, true},
                                   {1280.5, 1281, true},
                                   {1280.49, 1281, false},
                                   {0.5, 1, true},
                                   {2147483647, 2147483647.4, true},
                                   {2147483647, 2147483646.4, false}};
    ServerProcess server;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::string name = "cam" + std::to_string(i);
        RtmpClient player = playing_client(name);
        RtmpClient publisher = publishing_client(name);
        const LineMark mark = server.mark();
        publisher.send_metadata(amf_object({{"width", amf_number(rows[i].first)}}));
        (void)player.expect_message(MSG_DATA);
        publisher.send_metadata(amf_object({{"width", amf_number(rows[i].second)}}));
        (void)publisher.round_trip();
        EXPECT_EQ(server.count("width changed", mark), rows[i].same ? 0U : 1U)
            << rows[i].first << " and " << rows[i].second;
    }
}

TEST(metadata_numbers, codecs_that_do_not_fit_are_taken_from_the_payload) {
    std::vector<double> codecs = NUMBERS_THAT_NEVER_FIT;
    codecs.insert(codecs.end(), {0.0, -0.0, 0.49, -0.5, 4294967295.5});
    ServerProcess server;
    for (std::size_t i = 0; i < codecs.size(); ++i) {
        RtmpClient publisher = publishing_client("cam" + std::to_string(i));
        const LineMark mark = server.mark();
        publisher.send_metadata(
            amf_object({{"audiocodecid", amf_number(codecs[i])}, {"videocodecid", amf_number(codecs[i])}}));
        publisher.send_audio(1000, aac_frame(1));
        publisher.send_video(1000, avc_inter_frame(1));
        (void)publisher.round_trip();
        EXPECT_EQ(server.count("Lock on audio type 10", mark), 1U) << codecs[i];
        EXPECT_EQ(server.count("Lock on video type 7", mark), 1U) << codecs[i];
    }
}

TEST(metadata_numbers, codecs_that_fit_are_rounded_half_up) {
    struct Row {
        double codec;
        const char* line;
    };
    const std::vector<Row> rows = {
        {0.5, "Lock on audio type 1 (0x1) ''"},
        {9.5, "Lock on audio type 10 (0xa) ''"},
        {10.49, "Lock on audio type 10 (0xa) ''"},
        {2147483647, "Lock on audio type 2147483647 (0x7fffffff) '\x7F\xFF\xFF\xFF'"},
        {2147483648, "Lock on audio type -2147483648 (0x80000000) '\x80'"},
        {4294967294, "Lock on audio type -2 (0xfffffffe) '\xFF\xFF\xFF\xFE'"},
    };
    ServerProcess server;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        RtmpClient publisher = publishing_client("cam" + std::to_string(i));
        const LineMark mark = server.mark();
        publisher.send_metadata(amf_object({{"audiocodecid", amf_number(rows[i].codec)}}));
        publisher.send_audio(1000, aac_frame(1));
        (void)publisher.round_trip();
        EXPECT_EQ(server.count(rows[i].line, mark), 1U) << rows[i].line;
    }
}

TEST(metadata_numbers, a_transaction_id_that_is_not_a_number_is_refused) {
    ServerProcess server;
    for (const double id : NUMBERS_THAT_NEVER_FIT) {
        RtmpClient client = handshaken_client();
        client.send_connect("ombrex-live", id);
        client.expect_closed_without_answer();
    }
    EXPECT_EQ(server.count("AMF0 error command"), NUMBERS_THAT_NEVER_FIT.size());
}

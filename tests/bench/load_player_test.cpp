// What the load's player reports about a server that keeps to the rules, and about one that loses, damages or
// misplaces something. The server is a socket on which the test sends.
#include "bench/load_player.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "tests/support/media_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::uint32_t AUDIO_CSID = 4;
constexpr std::uint32_t VIDEO_CSID = 6;
// How far a late player's clock is behind the publisher's.
constexpr std::uint32_t SHIFT_MS = 5000;

class load_player_test : public testing::Test {
  protected:
    load_player_test() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener, 1) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw TestFailure("cannot listen on the loopback");
        }
        ClientOptions options;
        options.port = ntohs(address.sin_port);
        player = std::make_unique<LoadPlayer>(RtmpClient(options), "stream", DEFAULT_CHUNK_SIZE);
        server = accept(listener, nullptr, nullptr);
    }
    ~load_player_test() override {
        close(server);
        close(listener);
    }

    void serve(const Bytes& bytes) {
        ASSERT_EQ(send(server, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        served_bytes += bytes.size();
    }

    // Lets the player read everything that was served, this many bytes at a time.
    void let_read(std::size_t bytes_at_a_time = 1 << 16, Measure measure = Measure::LATENESS) {
        std::vector<char> buffer(bytes_at_a_time);
        pollfd entry{player->fd(), POLLIN, 0};
        while (tally.bytes < served_bytes) {
            ASSERT_EQ(poll(&entry, 1, static_cast<int>(DEFAULT_WAIT.count())), 1);
            ASSERT_TRUE(player->receive(buffer, tally, measure));
        }
    }

    static Bytes headers() {
        return chunked({.type = MSG_AUDIO, .payload = aac_header(), .csid = AUDIO_CSID}) +
               chunked({.type = MSG_VIDEO, .payload = avc_header(), .csid = VIDEO_CSID});
    }

    static Bytes video_message(const Bytes& payload, std::uint32_t media_ms) {
        return chunked(
            {.type = MSG_VIDEO, .payload = payload, .csid = VIDEO_CSID, .timestamp = media_ms - SHIFT_MS});
    }

    // Alternately audio and video, 20 ms apart.
    static Bytes frame(std::uint32_t sequence, std::size_t size_bytes = 1000) {
        const FrameStamp stamp{sequence, media_ms(sequence), now_us()};
        if (sequence % 2 == 0) {
            return video_message(stamped_frame(FrameKind::VIDEO_INTER, size_bytes, stamp), stamp.media_ms);
        }
        return chunked({.type = MSG_AUDIO,
                        .payload = stamped_frame(FrameKind::AUDIO, size_bytes, stamp),
                        .csid = AUDIO_CSID,
                        .timestamp = stamp.media_ms - SHIFT_MS});
    }

    static std::uint32_t media_ms(std::uint32_t sequence) { return SHIFT_MS + 20 * sequence; }

    void expect_tally(std::uint64_t frames, std::int64_t lost, std::uint64_t damaged) const {
        EXPECT_EQ(tally.frames, frames);
        EXPECT_EQ(tally.lost, lost);
        EXPECT_EQ(tally.damaged, damaged);
    }

    void expect_order(std::uint64_t duplicated, std::uint64_t reordered) const {
        EXPECT_EQ(tally.duplicated, duplicated);
        EXPECT_EQ(tally.reordered, reordered);
    }

    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int server = -1;
    std::size_t served_bytes = 0;
    std::unique_ptr<LoadPlayer> player;
    FrameTally tally;
};

TEST_F(load_player_test, an_intact_stream_is_counted_without_faults) {
    serve(headers() + frame(100) + frame(101) + frame(102, 1) + frame(103, 5000));
    let_read();
    expect_tally(4, 0, 0);
    EXPECT_EQ(player->next_frame(), 104U);
    EXPECT_EQ(tally.lateness.count(), 4U);
}

TEST_F(load_player_test, bytes_may_be_split_anywhere) {
    serve(headers() + frame(100, 300) + frame(101, 257) + frame(102, 500));
    let_read(1);
    expect_tally(3, 0, 0);
}

TEST_F(load_player_test, missing_frames_count_as_lost) {
    serve(headers() + frame(100) + frame(103) + frame(104));
    let_read();
    expect_tally(3, 2, 0);
}

TEST_F(load_player_test, a_frame_that_arrives_twice_counts_as_duplicated) {
    serve(headers() + frame(100) + frame(101) + frame(101) + frame(100) + frame(102));
    let_read();
    expect_tally(5, 0, 0);
    expect_order(2, 0);
}

TEST_F(load_player_test, a_frame_that_arrives_after_a_later_one_counts_as_reordered_and_not_as_lost) {
    serve(headers() + frame(100) + frame(102) + frame(101) + frame(103) + frame(106) + frame(104));
    let_read();
    expect_tally(6, 1, 0);
    expect_order(0, 2);
}

TEST_F(load_player_test, frames_before_a_long_gap_are_no_longer_remembered) {
    serve(headers() + frame(100) + frame(163) + frame(101) + frame(228) + frame(164) + frame(228));
    let_read();
    expect_tally(6, 62 - 1 + 64, 0);
    expect_order(2, 1);
}

TEST_F(load_player_test, the_first_picture_of_a_player_is_timed_once) {
    serve(headers() + frame(101) + frame(102) + frame(104));
    let_read();
    EXPECT_EQ(tally.first_pictures.count(), 1U);
}

TEST_F(load_player_test, a_changed_byte_counts_as_damage) {
    Bytes payload = stamped_frame(FrameKind::VIDEO_KEY, 1000, {100, media_ms(100), now_us()});
    payload[500] = static_cast<char>(payload[500] + 1);
    serve(headers() + video_message(payload, media_ms(100)));
    let_read();
    expect_tally(1, 0, 1);
}

TEST_F(load_player_test, a_timestamp_off_the_players_clock_counts_as_damage) {
    const FrameStamp stamp{102, media_ms(102), now_us()};
    serve(headers() + frame(100) + frame(101) +
          video_message(stamped_frame(FrameKind::VIDEO_INTER, 1000, stamp), stamp.media_ms + 1));
    let_read();
    expect_tally(3, 0, 1);
}

TEST_F(load_player_test, a_frame_before_its_decoder_settings_counts_as_damage) {
    serve(chunked({.type = MSG_VIDEO, .payload = avc_header(), .csid = VIDEO_CSID}) + frame(100) +
          frame(101));
    let_read();
    expect_tally(2, 0, 1);
}

TEST_F(load_player_test, a_continuation_of_another_chunk_stream_counts_as_damage) {
    Bytes bytes = frame(100, 200);
    constexpr std::size_t CONTINUATION_OFFSET = 12 + DEFAULT_CHUNK_SIZE;
    ASSERT_EQ(static_cast<unsigned char>(bytes[CONTINUATION_OFFSET]), 0xC0 + VIDEO_CSID);
    bytes[CONTINUATION_OFFSET] = static_cast<char>(0xC0 + AUDIO_CSID);
    serve(headers() + bytes);
    let_read();
    expect_tally(1, 0, 1);
}

TEST_F(load_player_test, an_extended_timestamp_follows_only_the_first_header) {
    for (std::uint32_t sequence : {1000000U, 1000001U, 1000002U}) {
        serve((sequence == 1000000U ? headers() : Bytes()) + frame(sequence, 500));
    }
    let_read(7);
    expect_tally(3, 0, 0);
}

TEST_F(load_player_test, it_plays_when_connect_create_stream_and_play_have_been_answered) {
    const Bytes answer = chunked({.payload = amf_string("_result")});
    serve(answer + answer + chunked({.type = MSG_ACKNOWLEDGEMENT, .payload = be32(1), .csid = 2}) +
          chunked({.type = MSG_DATA}));
    let_read();
    EXPECT_FALSE(player->is_playing());
    serve(answer);
    let_read();
    EXPECT_TRUE(player->is_playing());
    EXPECT_EQ(player->next_frame(), std::nullopt);
}

TEST_F(load_player_test, lateness_is_omitted_when_only_loss_is_measured) {
    serve(headers() + frame(100) + frame(102));
    let_read(1 << 16, Measure::LOSS_ONLY);
    expect_tally(2, 1, 0);
    EXPECT_EQ(tally.lateness.count(), 0U);
}

TEST_F(load_player_test, the_end_of_the_connection_is_reported) {
    shutdown(server, SHUT_WR);
    std::vector<char> buffer(16);
    pollfd entry{player->fd(), POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, static_cast<int>(DEFAULT_WAIT.count())), 1);
    EXPECT_FALSE(player->receive(buffer, tally));
}

}  // namespace

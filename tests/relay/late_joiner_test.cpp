#include "relay/late_joiner.h"

#include <string>
#include <vector>

#include "tests/relay/relay_fixture.h"

namespace {

using Messages = std::vector<QueuedMessage>;

class late_joiner_test : public RelayFixture {};

}  // namespace

TEST_F(late_joiner_test, a_player_gets_the_saved_audio_header_before_its_first_audio) {
    RTMPConnection& publisher = add_publisher();
    relay(publisher, make_packet(MESSAGE_AUDIO, 900, AAC_HEADER, 5, 77));
    RTMPConnection& player = add_player();
    EXPECT_EQ(relay(publisher, make_packet(MESSAGE_AUDIO, 1000, AAC_FRAME, 4, 78)).printed,
              "From publisher to connection: source timebase 1000, add 0\n"
              "Relay: Repeating audio sequence header\n");
    EXPECT_EQ(take_queued(player),
              (Messages{{MESSAGE_AUDIO, 0, AAC_HEADER, 5, 77}, {MESSAGE_AUDIO, 0, AAC_FRAME, 4, 78}}));
    EXPECT_EQ(relay_audio(publisher, 1021, AAC_FRAME).printed, "");
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 21, AAC_FRAME}}));
}

TEST_F(late_joiner_test, a_player_gets_the_saved_video_header_before_its_first_video) {
    RTMPConnection& publisher = add_publisher();
    relay(publisher, make_packet(MESSAGE_VIDEO, 900, AVC_HEADER, 7, 77));
    RTMPConnection& player = add_player();
    EXPECT_EQ(relay(publisher, make_packet(MESSAGE_VIDEO, 1000, AVC_INTER_FRAME, 6, 78)).printed,
              "From publisher to connection: source timebase 1000, add 0\n"
              "Relay: Repeating video sequence header\n");
    EXPECT_EQ(take_queued(player),
              (Messages{{MESSAGE_VIDEO, 0, AVC_HEADER, 7, 77}, {MESSAGE_VIDEO, 0, AVC_INTER_FRAME, 6, 78}}));
    EXPECT_EQ(relay_video(publisher, 1040, AVC_INTER_FRAME).printed, "");
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_VIDEO, 40, AVC_INTER_FRAME, 6}}));
}

TEST_F(late_joiner_test, a_repeated_header_carries_the_timestamp_of_the_message_after_it) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 900, AAC_HEADER);
    relay_video(publisher, 900, AVC_HEADER);
    RTMPConnection& player = add_player();
    relay_audio(publisher, 1000, AAC_FRAME);
    take_queued(player);
    relay_video(publisher, 1033, AVC_INTER_FRAME);
    EXPECT_EQ(take_queued(player),
              (Messages{{MESSAGE_VIDEO, 33, AVC_HEADER, 6}, {MESSAGE_VIDEO, 33, AVC_INTER_FRAME, 6}}));
}

TEST_F(late_joiner_test, only_the_player_that_joined_late_gets_the_header_again) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& early = add_player();
    relay_audio(publisher, 1000, AAC_HEADER);
    RTMPConnection& late = add_player();
    take_queued(early);
    relay_audio(publisher, 1010, AAC_FRAME);
    EXPECT_EQ(take_queued(early), (Messages{{MESSAGE_AUDIO, 10, AAC_FRAME}}));
    EXPECT_EQ(take_queued(late), (Messages{{MESSAGE_AUDIO, 0, AAC_HEADER}, {MESSAGE_AUDIO, 0, AAC_FRAME}}));
}

TEST_F(late_joiner_test, the_last_of_several_headers_is_repeated) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 900, AAC_HEADER);
    const std::string newer{"\xAF\x00\x11\x90\x56", 5};
    relay_audio(publisher, 950, newer);
    RTMPConnection& player = add_player();
    relay_audio(publisher, 1000, AAC_FRAME);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 0, newer}, {MESSAGE_AUDIO, 0, AAC_FRAME}}));
}

TEST_F(late_joiner_test, a_header_that_is_the_first_message_is_not_sent_twice) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 900, AAC_HEADER);
    relay_video(publisher, 900, AVC_HEADER);
    RTMPConnection& player = add_player();
    relay_audio(publisher, 1000, AAC_HEADER);
    relay_video(publisher, 1000, AVC_HEADER);
    EXPECT_EQ(take_queued(player),
              (Messages{{MESSAGE_AUDIO, 0, AAC_HEADER}, {MESSAGE_VIDEO, 0, AVC_HEADER, 6}}));
    EXPECT_EQ(relay_audio(publisher, 1001, AAC_FRAME).printed, "");
    EXPECT_EQ(relay_video(publisher, 1001, AVC_INTER_FRAME).printed, "");
    EXPECT_EQ(take_queued(player).size(), 2U);
}

TEST_F(late_joiner_test, nothing_is_ever_repeated_to_a_player_whose_first_frame_had_no_header_before_it) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    relay_video(publisher, 1000, AVC_INTER_FRAME);
    EXPECT_TRUE(player.video.header_delivered);
    EXPECT_FALSE(player.audio.header_delivered);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_VIDEO, 0, AVC_INTER_FRAME, 6}}));

    relay_video(publisher, 1040, AVC_HEADER);
    EXPECT_EQ(relay_video(publisher, 1080, AVC_INTER_FRAME).printed, "");
    EXPECT_EQ(take_queued(player),
              (Messages{{MESSAGE_VIDEO, 40, AVC_HEADER, 6}, {MESSAGE_VIDEO, 80, AVC_INTER_FRAME, 6}}));
}

TEST_F(late_joiner_test, an_empty_message_is_a_first_message_like_any_other) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 900, AAC_HEADER);
    RTMPConnection& player = add_player();
    EXPECT_EQ(relay_audio(publisher, 1000, "").printed,
              "From publisher to connection: source timebase 1000, add 0\n"
              "Relay: Repeating audio sequence header\n");
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 0, AAC_HEADER}, {MESSAGE_AUDIO, 0, ""}}));
}

TEST_F(late_joiner_test, other_messages_have_no_header) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 900, AAC_HEADER);
    RTMPConnection& player = add_player();
    EXPECT_EQ(printed_by([&] {
                  const RTMP_Packet pkt = make_packet(22, 1000, "x");
                  deliver_sequence_header(player, publisher, RelayedMessage(pkt), 0);
              }),
              "");
    EXPECT_FALSE(player.audio.header_delivered);
    EXPECT_FALSE(player.video.header_delivered);
    EXPECT_TRUE(player.connection_out.empty());
}

// How TCP cuts a client's bytes makes no difference to anything that the server prints or sends.
//
// The reader's acknowledgements and the main loop's answers are queued by two threads, so their relative
// order is not fixed. If the main loop has its turn at every read, all output is compared as it stands; if
// the reader gets ahead, the acknowledgements and the rest are compared separately.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tests/segmentation/replayed_session.h"
#include "tests/support/media_bytes.h"
#include "tests/support/time_limits.h"

namespace {

using testing::HasSubstr;

Session replayable_session(const std::string& name) {
    Session session = session_named(name);
    answer_handshake(session, replayed_handshake());
    return session;
}

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

std::vector<std::size_t> ends_every(std::size_t segment_bytes, std::size_t session_bytes) {
    std::vector<std::size_t> ends;
    for (std::size_t end = segment_bytes; end < session_bytes; end += segment_bytes) {
        ends.push_back(end);
    }
    return ends;
}

struct Row {
    std::string session;
    MainLoop main_loop;
};

std::string row_name(const testing::TestParamInfo<Row>& row) {
    return row.param.session +
           (row.param.main_loop == MainLoop::AT_EVERY_READ ? "_handled_at_every_read" : "_read_ahead");
}

class segmentation : public testing::TestWithParam<Row> {
  protected:
    // Whether the output is the same as for one piece, and the session was really cut there.
    testing::AssertionResult is_the_same_in(const std::vector<std::size_t>& ends) {
        const Replay cut = replay(session, ends, GetParam().main_loop);
        if (cut.waits != ends) {
            return testing::AssertionFailure() << "the reader did not wait where the segments end";
        }
        for (const auto& [receiver, output] : whole.sent) {
            const Output& now = cut.sent.at(receiver);
            if (now.acknowledgements != output.acknowledgements) {
                return testing::AssertionFailure() << "other acknowledgements to the " << receiver;
            }
            if (now.others != output.others) {
                return testing::AssertionFailure() << "other messages to the " << receiver;
            }
            if (GetParam().main_loop == MainLoop::AT_EVERY_READ && now.bytes != output.bytes) {
                return testing::AssertionFailure() << "another order of messages to the " << receiver;
            }
        }
        if (GetParam().main_loop == MainLoop::AT_EVERY_READ && cut.printed != whole.printed) {
            return testing::AssertionFailure() << "other lines:\n"
                                               << cut.printed << "instead of\n"
                                               << whole.printed;
        }
        return testing::AssertionSuccess();
    }

    const Session session = replayable_session(GetParam().session);
    const Replay whole = replay(session, {}, GetParam().main_loop);
};

}  // namespace

// Proves that the comparisons below are about complete sessions.
TEST_P(segmentation, a_session_in_one_piece_is_served_completely) {
    EXPECT_THAT(whole.printed, HasSubstr("RTMP handshake complete\n"));
    EXPECT_THAT(whole.printed, HasSubstr("accepted app ombrex-"));
    if (session.plays) {
        EXPECT_THAT(whole.sent.at("client").others, HasSubstr("onMetaData"));
        EXPECT_THAT(whole.sent.at("client").others, HasSubstr(avc_header()));
        EXPECT_THAT(whole.printed, HasSubstr("Relay: Repeating video sequence header\n"));
        EXPECT_THAT(whole.printed, HasSubstr("deleteStream, drop connection\n"));
        EXPECT_EQ(count(whole.sent.at("client").others, "_result"), 2U);
        return;
    }
    EXPECT_EQ(count(whole.printed, "error"), 0U) << whole.printed;
    EXPECT_THAT(whole.printed, HasSubstr("Connection is publishing '" + session.stream + "'\n"));
    EXPECT_GE(whole.sent.at("client").acknowledgements.size(), 10U * 16);
    EXPECT_THAT(whole.sent.at("player").others, HasSubstr("onMetaData"));
    EXPECT_THAT(whole.sent.at("player").others, HasSubstr(std::string("\x17\x00\x00\x00\x00\x01", 6)));
    EXPECT_GT(whole.sent.at("player").others.size(), 1000U);
    EXPECT_EQ(count(whole.sent.at("client").others, "_result"), session.name == "hand_made" ? 3U : 4U)
        << whole.printed;
}

TEST_P(segmentation, two_segments_are_served_like_one_wherever_the_split_is) {
    // A sanitizer build, in which each cut takes ten times as long, tests one cut in seven. A build that
    // looks for races, of which a single thread has none, tests one in seventy-one.
#ifdef __SANITIZE_THREAD__
    constexpr std::size_t STEP = 71;
#else
    constexpr std::size_t STEP = TIME_SCALE == 1 ? 1 : 7;
#endif
    for (std::size_t end = 1; end < session.bytes.size(); end += STEP) {
        ASSERT_TRUE(is_the_same_in({end})) << "cut after byte " << end << " of " << session.bytes.size();
    }
}

TEST_P(segmentation, segments_of_one_byte_are_served_like_one) {
    ASSERT_TRUE(is_the_same_in(ends_every(1, session.bytes.size())));
}

TEST_P(segmentation, segments_of_any_size_are_served_like_one) {
    for (const std::size_t segment_bytes : {2U, 3U, 5U, 11U, 12U, 127U, 128U, 129U, 536U, 1460U}) {
        ASSERT_TRUE(is_the_same_in(ends_every(segment_bytes, session.bytes.size()))) << segment_bytes;
    }
    std::mt19937 random(1);
    for (int i = 0; i < 100; ++i) {
        std::vector<std::size_t> ends;
        for (std::size_t end = 1 + random() % 300; end < session.bytes.size(); end += 1 + random() % 300) {
            ends.push_back(end);
        }
        ASSERT_TRUE(is_the_same_in(ends)) << "random cuts " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    of, segmentation,
    testing::Values(Row{"publisher", MainLoop::AT_EVERY_READ}, Row{"publisher", MainLoop::WHEN_ALL_IS_READ},
                    Row{"player", MainLoop::AT_EVERY_READ}, Row{"player", MainLoop::WHEN_ALL_IS_READ},
                    Row{"hand_made", MainLoop::AT_EVERY_READ}, Row{"hand_made", MainLoop::WHEN_ALL_IS_READ}),
    row_name);

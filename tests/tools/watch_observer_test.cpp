#include "tools/v9_rtmp_ctl/watch_observer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/fake_server.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::uint64_t SECOND_US = 1000000;

class watch_of_a_silent_server_test : public testing::Test {
  protected:
    watch_of_a_silent_server_test() {
        settings.socket_path = server.path();
        settings.timeout_seconds = 5;
    }

    FakeServer server{[](const Request&, bool) { return std::nullopt; }};
    Settings settings;
    WatchModel model;
};

}  // namespace

TEST_F(watch_of_a_silent_server_test, reports_that_nothing_arrived) {
    WatchObserver observer(settings, {});
    EXPECT_FALSE(observer.keep_time(model, 0));
    EXPECT_FALSE(observer.keep_time(model, 5 * SECOND_US - 1));
    EXPECT_TRUE(observer.keep_time(model, 5 * SECOND_US));
    ASSERT_TRUE(model.trouble);
    EXPECT_THAT(model.trouble->message, HasSubstr("did not answer in time (5 s)"));
}

TEST_F(watch_of_a_silent_server_test, a_drop_without_a_reply_may_have_been_carried_out) {
    WatchObserver observer(settings, {});
    model.drop_stream = "cam1";
    observer.begin_drop(model, 0);
    EXPECT_TRUE(observer.keep_time(model, 5 * SECOND_US));
    EXPECT_THAT(model.notice, StartsWith("The drop may have been carried out: the server did not answer"));
    // The listing that precedes the drop of one connection drops nothing.
    model.drop_candidate.emplace();
    observer.begin_drop(model, 5 * SECOND_US);
    EXPECT_TRUE(observer.keep_time(model, 10 * SECOND_US));
    EXPECT_THAT(model.notice, StartsWith("the server did not answer"));
}

TEST_F(watch_of_a_silent_server_test, there_is_no_advice_to_restart_a_server_that_is_still_sending) {
    for (const std::uint64_t timeout : {5U, 60U, 100U}) {
        settings.timeout_seconds = static_cast<double>(timeout);
        WatchObserver observer(settings, {});
        model = {};
        EXPECT_FALSE(observer.keep_time(model, 0));
        const std::uint64_t end_us = longest_reply_us(timeout * SECOND_US);
        for (std::uint64_t now_us = 0; now_us < end_us; now_us += 4 * SECOND_US) {
            EXPECT_FALSE(observer.take_replies(model, now_us));  // as if bytes had arrived
            EXPECT_FALSE(observer.keep_time(model, now_us));
        }
        EXPECT_TRUE(observer.keep_time(model, end_us));
        ASSERT_TRUE(model.trouble);
        EXPECT_THAT(model.trouble->message, HasSubstr("the server was still sending its answer after"));
    }
}

#include "tools/v9_rtmp_ctl/watch_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

namespace {

constexpr Key ENTER{KeyKind::ENTER, 0};
constexpr Key ESCAPE{KeyKind::ESCAPE, 0};

Listing sample_listing(std::uint64_t taken_us = 1000000) {
    Listing listing;
    listing.taken_us = taken_us;
    for (const char* line :
         {"0\tcam1\tpublish\t640x360\t10\t1000\t10.0.0.1:1", "1\tcam1\tplay\t\t2000\t10\t10.0.0.2:2",
          "2\tdemo\tplay\t\t500\t10\t10.0.0.3:3", "3\t\t\t\t0\t0\t10.0.0.4:4"}) {
        listing.connections.push_back(*parse_connection_line(line));
    }
    return listing;
}

WatchModel running_model() {
    WatchModel model;
    take_in(model, sample_listing());
    return model;
}

void press(WatchModel& model, KeyKind kind) {
    EXPECT_EQ(press_key(model, {kind, 0}), WatchAction::NONE);
}

WatchAction type(WatchModel& model, std::string_view characters) {
    WatchAction action = WatchAction::NONE;
    for (const char c : characters) {
        action = press_key(model, {KeyKind::CHARACTER, c});
    }
    return action;
}

}  // namespace

TEST(watch_model, quits_on_q) {
    WatchModel model = running_model();
    EXPECT_EQ(type(model, "x"), WatchAction::NONE);
    EXPECT_EQ(type(model, "q"), WatchAction::QUIT);
}

TEST(watch_model, measures_rates_between_two_polls) {
    WatchModel model = running_model();
    EXPECT_EQ(model.listing.connections[1].sent_rate, std::nullopt);
    Listing next = sample_listing(3000000);
    next.connections[1].bytes_sent = 6000;
    take_in(model, next);
    EXPECT_THAT(model.listing.connections[1].sent_rate, Optional(2000.0));
    EXPECT_THAT(model.streams[0].out_rate, Optional(2000.0));
}

TEST(watch_model, forgets_everything_when_the_server_stops) {
    WatchModel model = running_model();
    take_in(model, Failure{ExitCode::NOT_RUNNING, "gone"});
    EXPECT_FALSE(model.running);
    EXPECT_EQ(model.trouble->message, "gone");
    EXPECT_THAT(model.listing.connections, IsEmpty());
    EXPECT_THAT(model.streams, IsEmpty());
    take_in(model, sample_listing(2000000));
    EXPECT_TRUE(model.running);
    EXPECT_FALSE(model.trouble);
    // No rate is computed from a listing before the restart.
    EXPECT_EQ(model.listing.connections[1].sent_rate, std::nullopt);
}

TEST(watch_model, sorts_by_the_next_key_at_once) {
    WatchModel model = running_model();
    type(model, "s");
    EXPECT_EQ(model.sort, SortKey::STREAM);
    type(model, "s");
    EXPECT_EQ(model.sort, SortKey::RATE);
    type(model, "s");
    EXPECT_EQ(model.sort, SortKey::ID);
    EXPECT_EQ(model.listing.connections[3].id, 3U);
}

TEST(watch_model, pauses_with_p_and_space) {
    WatchModel model = running_model();
    type(model, "p");
    EXPECT_TRUE(model.paused);
    type(model, " ");
    EXPECT_FALSE(model.paused);
}

TEST(watch_model, filters_while_text_is_typed) {
    WatchModel model = running_model();
    type(model, "/cam");
    EXPECT_THAT(shown_connections(model), SizeIs(2));
    EXPECT_THAT(shown_streams(model), SizeIs(1));
    type(model, "q");  // a letter like any other here
    EXPECT_THAT(shown_connections(model), IsEmpty());
    EXPECT_EQ(press_key(model, {KeyKind::BACKSPACE, 0}), WatchAction::NONE);
    static_cast<void>(press_key(model, ENTER));
    EXPECT_EQ(model.filter, "cam");
    EXPECT_EQ(model.mode, WatchMode::VIEW);

    type(model, "/demo");
    static_cast<void>(press_key(model, ESCAPE));
    EXPECT_EQ(model.filter, "cam");
}

TEST(watch_model, filters_by_mode_and_address_too) {
    WatchModel model = running_model();
    model.filter = "publish";
    EXPECT_THAT(shown_connections(model), SizeIs(1));
    model.filter = "10.0.0.4";
    EXPECT_THAT(shown_connections(model), SizeIs(1));
}

TEST(watch_model, drops_only_after_a_yes) {
    WatchModel model = running_model();
    type(model, "d1");
    static_cast<void>(press_key(model, ENTER));
    ASSERT_EQ(model.mode, WatchMode::DROP_CONFIRM);
    EXPECT_EQ(model.drop_candidate->id, 1U);
    EXPECT_EQ(model.drop_candidate->stream, "cam1");
    EXPECT_EQ(press_key(model, ENTER), WatchAction::NONE);
    EXPECT_FALSE(model.drop_candidate);
    EXPECT_EQ(model.notice, "Nothing was dropped.");

    type(model, "d1");
    static_cast<void>(press_key(model, ENTER));
    EXPECT_EQ(type(model, "y"), WatchAction::DROP);
    EXPECT_EQ(model.drop_candidate->id, 1U);
    EXPECT_EQ(model.mode, WatchMode::VIEW);
}

TEST(watch_model, ignores_ids_that_are_not_listed) {
    WatchModel model = running_model();
    for (const char* typed : {"d99", "d128", "d1x", "d-1"}) {
        type(model, typed);
        static_cast<void>(press_key(model, ENTER));
        EXPECT_EQ(model.mode, WatchMode::VIEW) << typed;
        EXPECT_FALSE(model.drop_candidate) << typed;
        EXPECT_THAT(model.notice, HasSubstr("connection")) << typed;
    }
    type(model, "d1");
    static_cast<void>(press_key(model, ESCAPE));
    EXPECT_EQ(model.mode, WatchMode::VIEW);
    EXPECT_FALSE(model.drop_candidate);
}

TEST(watch_model, any_key_closes_the_help) {
    WatchModel model = running_model();
    type(model, "?");
    EXPECT_EQ(model.mode, WatchMode::HELP);
    EXPECT_EQ(type(model, "q"), WatchAction::NONE);
    EXPECT_EQ(model.mode, WatchMode::VIEW);
}

TEST(watch_model, arrows_select_and_the_selection_stays_with_its_client) {
    WatchModel model = running_model();
    press(model, KeyKind::UP);
    EXPECT_THAT(model.connection_cursor.selected, Optional(0U));
    press(model, KeyKind::DOWN);
    EXPECT_THAT(model.connection_cursor.selected, Optional(1U));
    press(model, KeyKind::END);
    EXPECT_THAT(model.connection_cursor.selected, Optional(3U));
    type(model, "r");
    EXPECT_THAT(model.connection_cursor.selected, Optional(0U));
    EXPECT_EQ(shown_connections(model)[0]->id, 3U);
    type(model, "r");
    Listing next = sample_listing(3000000);
    next.connections.erase(next.connections.begin());
    take_in(model, next);
    EXPECT_THAT(model.connection_cursor.selected, Optional(2U));
    press(model, KeyKind::HOME);
    EXPECT_THAT(model.connection_cursor.selected, Optional(0U));
    press(model, KeyKind::ESCAPE);
    EXPECT_EQ(model.connection_cursor.selected, std::nullopt);
}

TEST(watch_model, tab_selects_among_the_streams) {
    WatchModel model = running_model();
    press(model, KeyKind::TAB);
    press(model, KeyKind::END);
    EXPECT_THAT(model.stream_cursor.selected, Optional(1U));
    EXPECT_EQ(model.connection_cursor.selected, std::nullopt);
    type(model, "d");
    EXPECT_THAT(model.drop_stream, Optional(std::string("demo")));
    EXPECT_EQ(type(model, "y"), WatchAction::DROP);
    EXPECT_EQ(*model.drop_stream, "demo");
}

TEST(watch_model, the_selected_connection_is_dropped_after_a_yes) {
    WatchModel model = running_model();
    press(model, KeyKind::END);
    type(model, "d");
    ASSERT_EQ(model.mode, WatchMode::DROP_CONFIRM);
    EXPECT_EQ(model.drop_candidate->id, 3U);
    EXPECT_EQ(type(model, "n"), WatchAction::NONE);
    EXPECT_FALSE(model.drop_candidate);
}

TEST(watch_model, either_table_can_be_shown_alone) {
    WatchModel model = running_model();
    type(model, "v");
    EXPECT_EQ(model.view, WatchView::STREAMS);
    EXPECT_TRUE(keys_are_for_streams(model));
    type(model, "v");
    EXPECT_EQ(model.view, WatchView::CONNECTIONS);
    EXPECT_FALSE(keys_are_for_streams(model));
    type(model, "v");
    EXPECT_EQ(model.view, WatchView::BOTH);
}

TEST(watch_model, unit_and_columns_are_changed) {
    WatchModel model = running_model();
    type(model, "ut");
    EXPECT_EQ(model.unit, RateUnit::BITS);
    EXPECT_EQ(model.keep, Keep::TOTALS);
    type(model, "ut");
    EXPECT_EQ(model.unit, RateUnit::BYTES);
    EXPECT_EQ(model.keep, Keep::ADDRESSES);
}

TEST(watch_model, a_filter_shows_the_streams_of_the_connections_it_shows) {
    WatchModel model = running_model();
    model.filter = "10.0.0.3";
    ASSERT_THAT(shown_streams(model), SizeIs(1));
    EXPECT_EQ(shown_streams(model)[0]->stream, "demo");
    model.filter = "";
    model.selection.mode = "publish";
    EXPECT_THAT(shown_connections(model), SizeIs(1));
    EXPECT_THAT(shown_streams(model), SizeIs(1));
}

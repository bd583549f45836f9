#include "tools/v9_rtmp_ctl/watch_frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/terminal_screen.h"

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

WatchModel model_of(const std::vector<std::string>& lines) {
    WatchModel model;
    model.clock = "12:34:56";
    Listing before;
    before.taken_us = 1000000;
    for (const std::string& line : lines) {
        Connection connection = *parse_connection_line(line);
        connection.bytes_sent = 0;
        connection.bytes_received = 0;
        before.connections.push_back(connection);
    }
    take_in(model, before);
    Listing after;
    after.taken_us = 2000000;
    for (const std::string& line : lines) {
        after.connections.push_back(*parse_connection_line(line));
    }
    take_in(model, after);
    return model;
}

WatchModel small_model() {
    return model_of({"0\tcam1\tpublish\t640x360\t100\t102400\t10.0.0.1:5000",
                     "1\tcam1\tplay\t\t51200\t0\t10.0.0.2:5001",
                     "12\tcam1\tpublish\t\t0\t2048\t10.0.0.9:5009", "3\t\t\t\t0\t0\t10.0.0.4:4"});
}

WatchModel full_model() {
    std::vector<std::string> lines;
    for (int id = 0; id < 128; ++id) {
        const std::string stream = "stream_" + std::to_string(id / 2);
        lines.push_back(std::to_string(id) + "\t" + stream + (id % 2 == 0 ? "\tpublish" : "\tplay") +
                        "\t1280x720\t1000\t2000\t192.168.100.200:50000");
    }
    return model_of(lines);
}

std::vector<std::string> texts(const std::vector<FrameLine>& lines) {
    std::vector<std::string> all;
    for (const FrameLine& line : lines) {
        all.push_back(line.text);
    }
    return all;
}

std::vector<std::string> frame(const WatchModel& model, std::size_t columns, std::size_t rows) {
    return texts(render_frame(model, {rows, columns}));
}

}  // namespace

TEST(watch_frame, shows_streams_and_connections_in_80_columns) {
    const std::vector<std::string> lines = frame(small_model(), 80, 24);
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_EQ(lines[0], "v9_rtmp_ctl 12:34:56  4 of 128 slots used: 2 publish, 1 play, 1 idle");
    EXPECT_EQ(lines[1], "in 102.0 KiB/s (102.0 KiB)  out 50.1 KiB/s (50.1 KiB)  sort id");
    EXPECT_EQ(lines[2], "");
    EXPECT_EQ(lines[3], "STREAM  PUBLISHER         PLAYERS     SIZE           IN         OUT  RIVALS");
    EXPECT_EQ(lines[4], "cam1    0? 10.0.0.1:5000        1  640x360  100.0 KiB/s  50.0 KiB/s  12");
    EXPECT_EQ(lines[5], "");
    EXPECT_EQ(lines[6], "ID  STREAM  MODE        SIZE     SENDING    RECEIVING  ADDRESS");
    EXPECT_EQ(lines[7], " 0  cam1    publish  640x360     100 B/s  100.0 KiB/s  10.0.0.1:5000");
    EXPECT_EQ(lines[8], " 1  cam1    play           -  50.0 KiB/s        0 B/s  10.0.0.2:5001");
    EXPECT_EQ(lines[9], " 3  -       -              -       0 B/s        0 B/s  10.0.0.4:4");
    EXPECT_EQ(lines[10], "12  cam1    publish        -       0 B/s    2.0 KiB/s  10.0.0.9:5009");
    EXPECT_EQ(lines[11], "");
    EXPECT_EQ(lines[23], "q quit  s sort  p pause  / filter  d drop  Tab table  v view  r reverse  ? help");
}

TEST(watch_frame, fits_into_every_size) {
    for (const WatchModel& model : {small_model(), full_model(), WatchModel()}) {
        for (std::size_t rows = 1; rows <= 30; ++rows) {
            for (const std::size_t columns : {1U, 10U, 40U, 79U, 80U, 200U}) {
                const std::vector<std::string> lines = frame(model, columns, rows);
                EXPECT_EQ(lines.size(), rows);
                for (const std::string& line : lines) {
                    EXPECT_LE(line.size(), columns);
                }
            }
        }
    }
}

TEST(watch_frame, reports_how_much_did_not_fit) {
    const std::vector<std::string> lines = frame(full_model(), 80, 24);
    EXPECT_THAT(lines[3], StartsWith("STREAM"));
    EXPECT_EQ(lines[12], "... 56 more");  // ten rows for the streams: titles, eight of 64, and this
    EXPECT_EQ(lines[13], "");
    EXPECT_THAT(lines[14], StartsWith(" ID"));
    EXPECT_THAT(lines[15], StartsWith("  0"));
    EXPECT_EQ(lines[22], "... 121 more");
}

TEST(watch_frame, scrolls_to_the_selected_connection) {
    WatchModel model = full_model();
    model.connection_cursor.scroll = 2;
    EXPECT_THAT(frame(model, 80, 24)[15], StartsWith("  2"));
    model.connection_cursor.selected = 127;
    settle(model, {24, 80});
    EXPECT_EQ(model.connection_cursor.scroll, 120U);
    EXPECT_THAT(frame(model, 80, 24)[22], StartsWith(">127"));
    model.connection_cursor.selected = 126;
    EXPECT_THAT(frame(model, 80, 24)[21], StartsWith(">126"));
    model.connection_cursor.selected = 20;
    settle(model, {24, 80});
    EXPECT_EQ(model.connection_cursor.scroll, 20U);
    model.connection_cursor.selected = 26;
    settle(model, {24, 80});
    EXPECT_EQ(model.connection_cursor.scroll, 20U);
    model.connection_cursor.selected = 27;
    settle(model, {24, 80});
    EXPECT_EQ(model.connection_cursor.scroll, 21U);
    EXPECT_THAT(frame(model, 80, 24)[21], StartsWith("> 27"));
    EXPECT_EQ(frame(model, 80, 24)[22], " ... 100 more");
    model.connection_cursor.selected = 900;
    settle(model, {24, 80});
    EXPECT_THAT(model.connection_cursor.selected, testing::Optional(127U));
}

TEST(watch_frame, scrolls_the_streams_too) {
    WatchModel model = full_model();
    model.stream_cursor.selected = 63;
    settle(model, {24, 80});
    const std::vector<std::string> lines = frame(model, 80, 24);
    EXPECT_THAT(lines[12], StartsWith(">stream_9 "));
    EXPECT_THAT(lines[15], StartsWith("  0"));
}

TEST(watch_frame, shows_either_table_alone) {
    WatchModel model = full_model();
    model.view = WatchView::STREAMS;
    std::vector<std::string> lines = frame(model, 80, 24);
    EXPECT_THAT(lines[3], StartsWith("STREAM"));
    EXPECT_EQ(lines[22], "... 46 more");
    model.view = WatchView::CONNECTIONS;
    lines = frame(model, 80, 24);
    EXPECT_THAT(lines[3], StartsWith(" ID"));
    EXPECT_EQ(lines[22], "... 110 more");
}

TEST(watch_frame, at_50_columns_the_address_goes_before_the_rates) {
    const std::vector<std::string> lines = frame(small_model(), 50, 20);
    EXPECT_EQ(lines[0], "12:34:56  4 of 128 slots used: 2 publish, 1 play");
    EXPECT_EQ(lines[1], "in 102.0 KiB/s  out 50.1 KiB/s  sort id");
    EXPECT_EQ(lines[3], "STREAM  PUB  PLAYERS           IN         OUT");
    EXPECT_EQ(lines[7], " 0  cam1    publish     100 B/s  100.0 KiB/s");
    EXPECT_EQ(lines[19], "q quit  s sort  p pause  / filter  d drop  ? help");
}

TEST(watch_frame, at_160_columns_sizes_and_totals_are_shown_beside_the_rates) {
    const std::vector<std::string> lines = frame(small_model(), 160, 50);
    EXPECT_EQ(lines[6],
              "ID  STREAM  MODE        SIZE      SENT   RECEIVED     SENDING    RECEIVING  ADDRESS");
    EXPECT_EQ(lines[7],
              " 0  cam1    publish  640x360     100 B  100.0 KiB     100 B/s  100.0 KiB/s  10.0.0.1:5000");
}

TEST(watch_frame, totals_can_be_kept_instead_of_addresses) {
    WatchModel model = small_model();
    model.keep = Keep::TOTALS;
    model.unit = RateUnit::BITS;
    const std::vector<std::string> lines = frame(model, 80, 24);
    EXPECT_EQ(lines[6], "ID  STREAM  MODE        SIZE      SENT   RECEIVED       SENDING     RECEIVING");
    EXPECT_EQ(lines[7], " 0  cam1    publish  640x360     100 B  100.0 KiB     800 bit/s  819.2 kbit/s");
}

TEST(watch_frame, with_few_rows_only_the_connections_remain) {
    EXPECT_THAT(frame(small_model(), 80, 7),
                ElementsAre(StartsWith("v9_rtmp_ctl"), StartsWith("in "), "", StartsWith("ID"),
                            StartsWith(" 0"), "... 3 more", StartsWith("q quit")));
    EXPECT_THAT(frame(small_model(), 80, 1), ElementsAre(StartsWith("q quit")));
}

TEST(watch_frame, cuts_lines_at_40_and_20_columns) {
    EXPECT_EQ(frame(small_model(), 40, 24)[7], " 0  cam1    pub~     100 B/s  100.0 KiB~");
    EXPECT_EQ(frame(small_model(), 20, 24)[7], " 0  cam1    pub~   ~");
}

TEST(watch_frame, shows_untrusted_bytes_in_hex) {
    const WatchModel model = model_of({std::string("0\t\x1b[2J\n\tplay\t\t1\t2\t\x9b") + "1"});
    for (const FrameLine& line : render_frame(model, {24, 80})) {
        for (const char c : line.text) {
            EXPECT_THAT(c, testing::AllOf(testing::Ge(0x20), testing::Le(0x7E)));
        }
    }
    EXPECT_THAT(frame(model, 80, 24)[4], StartsWith("\\x1B[2J\\x0A  "));
}

TEST(watch_frame, shows_that_the_server_is_not_running) {
    WatchModel model = small_model();
    take_in(model, Failure{ExitCode::NOT_RUNNING, "there is no socket. Start it."});
    const std::vector<std::string> lines = frame(model, 80, 24);
    EXPECT_EQ(lines[0], "v9_rtmp_ctl 12:34:56  not running");
    EXPECT_EQ(lines[4], "there is no socket. Start it.");
    take_in(model, Failure{ExitCode::NO_REPLY, "late"});
    EXPECT_EQ(frame(model, 80, 24)[0], "v9_rtmp_ctl 12:34:56  no answer");
}

TEST(watch_frame, breaks_long_advice_at_blanks) {
    WatchModel model;
    take_in(model, Failure{ExitCode::NO_REPLY, "one two three aaaaaaaaaaaaaaaa"});
    const std::vector<std::string> lines = frame(model, 10, 24);
    EXPECT_EQ(lines[4], "one two");
    EXPECT_EQ(lines[5], "three");
    EXPECT_EQ(lines[6], "aaaaaaaaaa");
    EXPECT_EQ(lines[7], "aaaaaa");
}

TEST(watch_frame, the_footer_shows_questions_and_notices) {
    WatchModel model = small_model();
    model.mode = WatchMode::DROP_ID;
    model.input = "1";
    EXPECT_THAT(frame(model, 80, 24)[23], StartsWith("drop connection id: 1_"));
    model.mode = WatchMode::DROP_CONFIRM;
    model.drop_candidate = model.listing.connections[1];
    EXPECT_EQ(frame(model, 80, 24)[23], "Drop connection 1, play 'cam1', 10.0.0.2:5001? [y/N]");
    model.drop_candidate = model.listing.connections[2];
    EXPECT_EQ(frame(model, 80, 24)[23], "Drop connection 3, without a stream, 10.0.0.4:4? [y/N]");
    model.drop_candidate = model.listing.connections[3];
    EXPECT_EQ(frame(model, 160, 24)[23],
              "Drop connection 12, publish 'cam1', 10.0.0.9:5009? It may be the one relayed. [y/N]");
    model.drop_candidate.reset();
    model.drop_stream = "cam1";
    EXPECT_EQ(frame(model, 80, 24)[23], "Drop all 3 connections of stream 'cam1'? [y/N]");
    model.listing.connections[2].stream = "cam2";
    model.drop_stream = "cam2";
    EXPECT_EQ(frame(model, 80, 24)[23], "Drop the only connection of stream 'cam2'? [y/N]");
    model.mode = WatchMode::FILTER;
    model.filter = "ca";
    EXPECT_THAT(frame(model, 80, 24)[23], StartsWith("filter: ca_"));
    model.mode = WatchMode::VIEW;
    model.notice = "Dropped connection 1.";
    EXPECT_EQ(frame(model, 80, 24)[23], "Dropped connection 1.");
}

TEST(watch_frame, a_notice_is_shown_whole) {
    WatchModel model = full_model();
    model.notice = "'" + std::string(64, 'x') + "' is not a connection id. Give a number from 0 to 127.";
    const std::vector<std::string> lines = frame(model, 80, 24);
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_THAT(lines[21], StartsWith("... "));
    EXPECT_EQ(lines[22] + " " + lines[23], model.notice);
    EXPECT_THAT(frame(model, 40, 2), ElementsAre("'" + std::string(39, 'x'), StartsWith("xxx")));
}

TEST(watch_frame, shows_that_it_is_paused_and_filtered) {
    WatchModel model = small_model();
    model.paused = true;
    model.filter = "cam";
    EXPECT_THAT(frame(model, 80, 24)[1], StartsWith("PAUSED  filter 'cam'  3 shown  in 102.0 KiB/s"));
}

TEST(watch_frame, totals_follow_the_filter) {
    WatchModel model = small_model();
    model.filter = "10.0.0.2";
    EXPECT_EQ(frame(model, 80, 24)[1],
              "filter '10.0.0.2'  1 shown  in 0 B/s (0 B)  out 50.0 KiB/s (50.0 KiB)  sort id");
    model.filter = "";
    model.reversed = true;
    model.selection.mode = "publish";
    EXPECT_EQ(frame(model, 80, 24)[1],
              "2 shown  in 102.0 KiB/s (102.0 KiB)  out 100 B/s (100 B)  sort id, reversed");
}

TEST(watch_frame, help_fits_into_80x24) {
    WatchModel model = small_model();
    model.mode = WatchMode::HELP;
    const std::vector<FrameLine> lines = render_frame(model, {24, 200});
    for (const FrameLine& line : lines) {
        EXPECT_LE(line.text.size(), 80U) << line.text;
    }
    EXPECT_EQ(texts(lines), frame(model, 80, 24));
    EXPECT_EQ(frame(model, 50, 20)[18], "not report which one it relays.");
    for (const std::string& line : frame(model, 50, 20)) {
        EXPECT_THAT(line, testing::Not(testing::EndsWith("~")));
    }
}

TEST(watch_frame, a_frame_of_unlimited_height_omits_nothing) {
    const std::vector<std::string> lines = texts(render_endless_frame(full_model()));
    EXPECT_EQ(lines.size(), 3U + 65U + 1U + 129U);
    EXPECT_THAT(lines.back(), StartsWith("127"));
}

TEST(watch_frame, fills_the_screen_to_its_last_column_and_leaves_nothing_of_the_old_frame) {
    for (const bool color : {false, true}) {
        TerminalScreen screen(3, 4);
        screen.feed("\x1b[?7l");
        screen.feed(paint_frame(
            {{"abcd", LineStyle::HEADING}, {"efgh", LineStyle::PLAIN}, {"ijkl", LineStyle::FOOT}}, color));
        EXPECT_THAT(screen.rows(), ElementsAre("abcd", "efgh", "ijkl"));
        screen.feed(paint_frame({{"m", LineStyle::HEADING}, {"", LineStyle::PLAIN}}, color));
        EXPECT_THAT(screen.rows(), ElementsAre("m", "", ""));
        EXPECT_THAT(screen.unknown(), testing::IsEmpty());
        EXPECT_FALSE(screen.has_style());
    }
}

TEST(watch_frame, is_painted_over_the_old_one_and_without_color_on_request) {
    const std::vector<FrameLine> lines{{"a", LineStyle::HEADING}, {"b", LineStyle::PLAIN}};
    EXPECT_EQ(paint_frame(lines, false), "\x1b[H\x1b[Ka\r\n\x1b[Jb");
    EXPECT_EQ(paint_frame(lines, true), "\x1b[H\x1b[K\x1b[1ma\x1b[0m\r\n\x1b[Jb");
}

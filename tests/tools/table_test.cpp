#include "tools/v9_rtmp_ctl/table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Table sample_table() {
    return {{{"ID", Align::RIGHT, 0},
             {"STREAM", Align::LEFT, 8},
             {"SENT", Align::RIGHT, 0},
             {"ADDRESS", Align::LEFT, 8}},
            {{"3", "cam1", "1.5 KiB", "10.0.0.1:5000"},
             {"127", "a_very_long_stream_name_indeed", "12 B", "10.0.0.2:50001"}}};
}

}  // namespace

TEST(table, columns_are_as_wide_as_their_content) {
    EXPECT_THAT(layout_table(sample_table(), std::nullopt, true),
                ElementsAre(" ID  STREAM                             SENT  ADDRESS",
                            "  3  cam1                            1.5 KiB  10.0.0.1:5000",
                            "127  a_very_long_stream_name_indeed     12 B  10.0.0.2:50001"));
}

TEST(table, without_titles_only_the_content_counts) {
    const Table table{{{"LONG TITLE", Align::RIGHT, 0}, {"B", Align::LEFT, 0}}, {{"1", "x"}}};
    EXPECT_THAT(layout_table(table, std::nullopt, false), ElementsAre("1  x"));
}

TEST(table, nothing_is_cut_if_there_is_room) {
    EXPECT_EQ(layout_table(sample_table(), 80, true), layout_table(sample_table(), std::nullopt, true));
}

TEST(table, the_widest_column_that_may_shrink_is_cut_first) {
    EXPECT_THAT(layout_table(sample_table(), 40, true),
                ElementsAre(" ID  STREAM           SENT  ADDRESS", "  3  cam1          1.5 KiB  10.0.0.1:50~",
                            "127  a_very_long~     12 B  10.0.0.2:50~"));
}

TEST(table, below_the_minimum_widths_lines_are_cut_at_their_end) {
    EXPECT_THAT(layout_table(sample_table(), 20, true),
                ElementsAre(" ID  STREAM       S~", "  3  cam1      1.5 ~", "127  a_very_~     1~"));
}

TEST(table, no_line_is_wider_than_asked) {
    for (std::size_t width = 0; width <= 70; ++width) {
        for (const std::string& line : layout_table(sample_table(), width, true)) {
            EXPECT_LE(line.size(), width) << line;
        }
    }
}

TEST(table, a_megabyte_of_name_is_cut_too) {
    const Table table{{{"ID", Align::RIGHT, 0}, {"STREAM", Align::LEFT, 8}},
                      {{"1", std::string(1 << 20, 'x')}}};
    EXPECT_THAT(layout_table(table, 20, false), ElementsAre("1  " + std::string(16, 'x') + "~"));
}

TEST(table, an_empty_table_has_its_titles) {
    const Table table{{{"ID", Align::RIGHT, 0}, {"STREAM", Align::LEFT, 8}}, {}};
    EXPECT_THAT(layout_table(table, 80, true), ElementsAre("ID  STREAM"));
    EXPECT_THAT(layout_table(table, 80, false), IsEmpty());
}

TEST(table, columns_with_a_rank_are_shown_if_there_is_room) {
    const Table table{{{"ID", Align::RIGHT, 0},
                       {"STREAM", Align::LEFT, 8},
                       {"SENT", Align::RIGHT, 0, 2},
                       {"GOT", Align::RIGHT, 0, 2},
                       {"FROM", Align::LEFT, 0, 1}},
                      {{"7", "a_stream_of_24_characters", "1B", "2B", "10.0.0.1"}}};
    EXPECT_THAT(layout_table(table, 80, false),
                ElementsAre("7  a_stream_of_24_characters  1B  2B  10.0.0.1"));
    // The name is cut to a comfortable width before anything is left out.
    EXPECT_THAT(layout_table(table, 31, false), ElementsAre("7  a_stream_~  1B  2B  10.0.0.1"));
    EXPECT_THAT(layout_table(table, 30, false), ElementsAre("7  a_stream_of_24_c~  10.0.0.1"));
    EXPECT_THAT(layout_table(table, 23, false), ElementsAre("7  a_stream_~  10.0.0.1"));
    // Columns of the next rank may still fit where that of the previous one does not.
    EXPECT_THAT(layout_table(table, 22, false), ElementsAre("7  a_stream_o~  1B  2B"));
    EXPECT_THAT(layout_table(table, 11, false), ElementsAre("7  a_strea~"));
}

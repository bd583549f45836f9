// A table of text, laid out in columns and cut to the width of a terminal. Pure.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

enum class Align { LEFT, RIGHT };

struct Column {
    std::string title;
    Align align = Align::LEFT;
    std::size_t min_width = 0;  // may be cut down to this when room is short; 0: is never cut
    unsigned rank = 0;  // 0: is always shown; else only where there is room, lower ranks before higher ones
};

constexpr std::size_t COMFORTABLE_WIDTH = 10;

// Cells are free of control bytes. Every row has one cell for each column.
struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;
};

// One line for the titles, if wanted, and one for each row, without trailing blanks. With a width no line is
// longer: columns that have a rank are shown as long as those that may be cut keep COMFORTABLE_WIDTH, then
// these shrink, the widest before the others, then lines are cut at their end.
[[nodiscard]] std::vector<std::string> layout_table(const Table& table, std::optional<std::size_t> width,
                                                    bool with_titles);

// Whether nothing has to be left out or cut below COMFORTABLE_WIDTH in lines of this width.
[[nodiscard]] bool fits_comfortably(const Table& table, std::size_t width);

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
    std::size_t min_width = 0;  // least width when space is tight; 0: never cut
    unsigned rank = 0;          // 0: always shown; otherwise if there is room, lower ranks first
};

constexpr std::size_t COMFORTABLE_WIDTH = 10;

// Cells contain no control bytes. Every row has one cell for each column.
struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;
};

// Returns one line for the titles, if wanted, and one for each row, without trailing blanks. If width is
// given, no line is longer. Columns with a rank are then shown only if the columns that may be cut keep
// COMFORTABLE_WIDTH. If space is still tight, the columns that may be cut shrink, the widest first. Finally,
// lines are cut at the end.
[[nodiscard]] std::vector<std::string> layout_table(const Table& table, std::optional<std::size_t> width,
                                                    bool with_titles);

// Whether lines of this width show all columns without cutting one below COMFORTABLE_WIDTH.
[[nodiscard]] bool fits_comfortably(const Table& table, std::size_t width);

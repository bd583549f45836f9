#include "tools/v9_rtmp_ctl/table.h"

#include <algorithm>
#include <limits>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::size_t GAP_COLUMNS = 2;

constexpr std::size_t LEFT_OUT = std::numeric_limits<std::size_t>::max();

// The width of each column; LEFT_OUT if the column is not shown.
using Widths = std::vector<std::size_t>;

Widths natural_widths(const Table& table, bool with_titles) {
    Widths widths(table.columns.size());
    for (std::size_t i = 0; i < widths.size(); ++i) {
        widths[i] = with_titles ? table.columns[i].title.size() : 0;
        for (const std::vector<std::string>& row : table.rows) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    return widths;
}

template <typename WidthOf>
std::size_t total_width(const Widths& widths, const WidthOf& width_of) {
    std::size_t total = 0;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        if (widths[i] != LEFT_OUT) {
            total += (total == 0 ? 0 : GAP_COLUMNS) + width_of(i);
        }
    }
    return total;
}

std::size_t total_width(const Widths& widths) {
    return total_width(widths, [&widths](std::size_t i) { return widths[i]; });
}

std::size_t comfortable_width(const Table& table, const Widths& widths) {
    return total_width(widths, [&](std::size_t i) {
        return table.columns[i].min_width == 0 ? widths[i] : std::min(widths[i], COMFORTABLE_WIDTH);
    });
}

// Omits columns that have a rank but no room.
void leave_out_by_rank(const Table& table, std::size_t width, Widths& widths) {
    unsigned highest = 0;
    for (const Column& column : table.columns) {
        highest = std::max(highest, column.rank);
    }
    Widths shown = widths;
    const auto show = [&](unsigned rank) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            shown[i] = table.columns[i].rank == rank ? widths[i] : shown[i];
        }
    };
    std::fill(shown.begin(), shown.end(), LEFT_OUT);
    show(0);
    for (unsigned rank = 1; rank <= highest; ++rank) {
        const Widths before = shown;
        show(rank);
        if (comfortable_width(table, shown) > width) {
            shown = before;
        }
    }
    widths = shown;
}

// Returns the widest column that may still shrink. Null if there is none.
std::size_t* widest_to_cut(const Table& table, Widths& widths) {
    std::size_t* widest = nullptr;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        const std::size_t min_width = table.columns[i].min_width;
        const bool may_be_cut = min_width != 0 && widths[i] != LEFT_OUT && widths[i] > min_width;
        if (may_be_cut && (widest == nullptr || widths[i] > *widest)) {
            widest = &widths[i];
        }
    }
    return widest;
}

void shrink_to(const Table& table, std::size_t width, Widths& widths) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
        if (table.columns[i].min_width != 0 && widths[i] != LEFT_OUT) {
            // Shrink a megabyte-long name to about the width in one step.
            widths[i] = std::min(widths[i], std::max(width, table.columns[i].min_width));
        }
    }
    while (total_width(widths) > width) {
        std::size_t* const widest = widest_to_cut(table, widths);
        if (widest == nullptr) {
            return;
        }
        --*widest;
    }
}

void append_cell(std::string& line, const std::string& cell, std::size_t width, Align align) {
    const std::string text = cut_text(cell, width);
    const std::string filling(width - text.size(), ' ');
    line += align == Align::LEFT ? text + filling : filling + text;
}

std::string layout_line(const Table& table, const std::vector<std::string>& cells, const Widths& widths) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (widths[i] == LEFT_OUT) {
            continue;
        }
        if (!line.empty()) {
            line.append(GAP_COLUMNS, ' ');
        }
        append_cell(line, cells[i], widths[i], table.columns[i].align);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

}  // namespace

std::vector<std::string> layout_table(const Table& table, std::optional<std::size_t> width,
                                      bool with_titles) {
    Widths widths = natural_widths(table, with_titles);
    if (width) {
        leave_out_by_rank(table, *width, widths);
        shrink_to(table, *width, widths);
    }
    std::vector<std::string> lines;
    if (with_titles) {
        std::vector<std::string> titles;
        for (const Column& column : table.columns) {
            titles.push_back(column.title);
        }
        lines.push_back(layout_line(table, titles, widths));
    }
    for (const std::vector<std::string>& row : table.rows) {
        lines.push_back(layout_line(table, row, widths));
    }
    if (width) {
        for (std::string& line : lines) {
            line = cut_text(line, *width);
        }
    }
    return lines;
}

bool fits_comfortably(const Table& table, std::size_t width) {
    return comfortable_width(table, natural_widths(table, true)) <= width;
}

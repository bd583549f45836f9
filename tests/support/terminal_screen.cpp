#include "tests/support/terminal_screen.h"

#include <algorithm>

namespace {

constexpr char ESCAPE = '\x1b';

bool ends_sequence(const std::string& sequence) {
    const char last = sequence.back();
    if (sequence.size() == 2) {
        return last != '[';
    }
    return sequence.size() > 2 && last >= 0x40 && last <= 0x7E;
}

void resize_grid(std::vector<std::string>& grid, std::size_t rows, std::size_t columns) {
    grid.resize(rows);
    for (std::string& line : grid) {
        line.resize(columns, ' ');
    }
}

}  // namespace

TerminalScreen::TerminalScreen(std::size_t screen_rows, std::size_t screen_columns)
    : height(screen_rows), width(screen_columns) {
    resize(screen_rows, screen_columns);
}

void TerminalScreen::resize(std::size_t screen_rows, std::size_t screen_columns) {
    height = screen_rows;
    width = screen_columns;
    resize_grid(main, height, width);
    resize_grid(alternate, height, width);
    row = std::min(row, height - 1);
    column = std::min(column, width - 1);
}

void TerminalScreen::feed(std::string_view bytes) {
    for (const char byte : bytes) {
        take_byte(byte);
    }
}

std::vector<std::string> TerminalScreen::rows() const {
    std::vector<std::string> result = on_alternate ? alternate : main;
    for (std::string& line : result) {
        line.erase(line.find_last_not_of(' ') + 1);
    }
    return result;
}

void TerminalScreen::take_byte(char byte) {
    if (!sequence.empty()) {
        sequence += byte;
        if (ends_sequence(sequence)) {
            take_sequence();
            sequence.clear();
        }
    } else if (byte == ESCAPE) {
        sequence = byte;
    } else if (byte == '\r') {
        column = 0;
    } else if (byte == '\n') {
        next_row();
    } else if (byte == '\b') {
        column -= std::min<std::size_t>(column, 1);
    } else if (byte >= 0x20 && byte <= 0x7E) {
        put(byte);
    } else {
        unknown_sequences.emplace_back(1, byte);
    }
}

void TerminalScreen::take_sequence() {
    const std::string_view text = std::string_view(sequence).substr(1);
    const std::string_view parameters = text.size() > 2 ? text.substr(1, text.size() - 2) : "";
    const char kind = text.back();
    if (text == "[H") {
        row = 0;
        column = 0;
    } else if (text == "[K") {
        erase_line_end();
    } else if (text == "[J") {
        erase_line_end();
        for (std::size_t i = row + 1; i < height; ++i) {
            shown()[i].assign(width, ' ');
        }
    } else if (text == "[2J") {
        shown().assign(height, std::string(width, ' '));
    } else if (kind == 'm') {
        styled = !parameters.empty() && parameters != "0";
    } else if (parameters.starts_with('?') && (kind == 'h' || kind == 'l')) {
        switch_mode(parameters, kind == 'h');
    } else {
        unknown_sequences.push_back(sequence);
    }
}

void TerminalScreen::switch_mode(std::string_view mode, bool on) {
    if (mode == "?1049" && on != on_alternate) {
        on_alternate = on;
        if (on) {
            saved_row = row;
            saved_column = column;
            alternate.assign(height, std::string(width, ' '));
        } else {
            row = std::min(saved_row, height - 1);
            column = std::min(saved_column, width - 1);
        }
    } else if (mode == "?25") {
        cursor_shown = on;
    } else if (mode == "?7") {
        wrapping = on;
    } else if (mode != "?1049") {
        unknown_sequences.push_back(sequence);
    }
}

// After a character in the last column the cursor is on it, as on real terminals, so it is erased too.
void TerminalScreen::erase_line_end() {
    std::string& line = shown()[row];
    const std::size_t from = std::min(column, width - 1);
    line.replace(from, width - from, width - from, ' ');
}

// A full line wraps only when another character arrives.
void TerminalScreen::put(char byte) {
    if (column >= width) {
        if (wrapping) {
            column = 0;
            next_row();
        } else {
            column = width - 1;
        }
    }
    shown()[row][column] = byte;
    ++column;
}

void TerminalScreen::next_row() {
    if (row + 1 < height) {
        ++row;
        return;
    }
    Grid& grid = shown();
    grid.erase(grid.begin());
    grid.emplace_back(width, ' ');
}

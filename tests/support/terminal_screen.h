// A terminal emulator: takes the bytes a program writes and maintains the two screens.
//
// It supports only the few sequences that the tool needs. Others are listed in unknown(), so a test can also
// require that nothing was misread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class TerminalScreen {
  public:
    TerminalScreen(std::size_t screen_rows, std::size_t screen_columns);

    void feed(std::string_view bytes);
    // A smaller screen loses what lies outside.
    void resize(std::size_t screen_rows, std::size_t screen_columns);

    // Returns the rows of the current screen, without trailing blanks.
    std::vector<std::string> rows() const;
    bool shows_alternate() const { return on_alternate; }
    bool shows_cursor() const { return cursor_shown; }
    bool wraps_lines() const { return wrapping; }
    // Whether bold, underline, reverse or a color is in effect.
    bool has_style() const { return styled; }
    const std::vector<std::string>& unknown() const { return unknown_sequences; }

  private:
    using Grid = std::vector<std::string>;

    void take_byte(char byte);
    void take_sequence();
    void switch_mode(std::string_view mode, bool on);
    void erase_line_end();
    void put(char byte);
    void next_row();
    Grid& shown() { return on_alternate ? alternate : main; }

    std::size_t height;
    std::size_t width;
    Grid main;
    Grid alternate;
    std::size_t row = 0;
    std::size_t column = 0;
    std::size_t saved_row = 0;
    std::size_t saved_column = 0;
    bool on_alternate = false;
    bool cursor_shown = true;
    bool wrapping = true;
    bool styled = false;
    std::string sequence;  // an incomplete escape sequence
    std::vector<std::string> unknown_sequences;
};

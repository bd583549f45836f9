// Where standard output goes, and what it can show.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct Settings;

struct OutputStyle {
    std::optional<std::size_t> width;  // of the terminal; nothing when it is none, and nothing is cut
    bool color = false;
};

struct ScreenSize {
    std::size_t rows = 24;
    std::size_t columns = 80;
};

// Color needs a terminal that is not dumb, and nobody who declines it. A null variable is one that is not
// set; an empty NO_COLOR declines nothing.
[[nodiscard]] bool wants_color(bool is_terminal, bool no_color_option, const char* no_color_variable,
                               const char* term_variable);

[[nodiscard]] OutputStyle find_output_style(const Settings& settings);

// 24 rows of 80 columns when the terminal does not say.
[[nodiscard]] ScreenSize find_screen_size();

// Prints lines; the first one, the titles, in bold when there are titles and color is wanted.
void print_lines(const std::vector<std::string>& lines, bool has_titles, const OutputStyle& style);

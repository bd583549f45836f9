// Standard output: its destination and what it can show.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct Settings;

struct OutputStyle {
    std::optional<std::size_t> width;  // of the terminal; empty: not a terminal, lines are not cut
    bool color = false;
};

struct ScreenSize {
    std::size_t rows = 24;
    std::size_t columns = 80;
};

// Whether to use color: on a terminal that is not dumb, unless the user declines it. A null pointer means
// that the variable is not set. An empty NO_COLOR does not turn color off.
[[nodiscard]] bool wants_color(bool is_terminal, bool no_color_option, const char* no_color_variable,
                               const char* term_variable);

[[nodiscard]] OutputStyle find_output_style(const Settings& settings);

// Returns 24 rows of 80 columns if the terminal does not report its size.
[[nodiscard]] ScreenSize find_screen_size();

// Prints lines. With has_titles and color, the first line is bold.
void print_lines(const std::vector<std::string>& lines, bool has_titles, const OutputStyle& style);

#include "tools/v9_rtmp_ctl/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "tools/v9_rtmp_ctl/commands.h"

namespace {

constexpr const char* BOLD = "\x1b[1m";
constexpr const char* NORMAL = "\x1b[0m";

}  // namespace

bool wants_color(bool is_terminal, bool no_color_option, const char* no_color_variable,
                 const char* term_variable) {
    const bool declined = no_color_option || (no_color_variable != nullptr && *no_color_variable != '\0');
    const bool dumb =
        term_variable == nullptr || *term_variable == '\0' || std::string_view(term_variable) == "dumb";
    return is_terminal && !declined && !dumb;
}

OutputStyle find_output_style(const Settings& settings) {
    OutputStyle style;
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    style.color = wants_color(is_terminal, settings.no_color, std::getenv("NO_COLOR"), std::getenv("TERM"));
    if (is_terminal) {
        style.width = find_screen_size().columns;
    }
    return style;
}

ScreenSize find_screen_size() {
    ScreenSize size;
    winsize told{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &told) == 0) {
        size.rows = told.ws_row != 0 ? told.ws_row : size.rows;
        size.columns = told.ws_col != 0 ? told.ws_col : size.columns;
    }
    return size;
}

void print_lines(const std::vector<std::string>& lines, bool has_titles, const OutputStyle& style) {
    bool bold = has_titles && style.color;
    for (const std::string& line : lines) {
        std::cout << (bold ? BOLD : "") << line << (bold ? NORMAL : "") << '\n';
        bold = false;
    }
}

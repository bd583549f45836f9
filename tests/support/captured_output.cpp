#include "tests/support/captured_output.h"

#include <algorithm>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t RECENT_LINES = 40;
constexpr std::size_t SHOWN_LINE_BYTES = 300;

std::string quoted_list(const std::vector<std::string>& wanted) {
    std::string text;
    for (const std::string& line : wanted) {
        text += "\n    " + line.substr(0, SHOWN_LINE_BYTES);
    }
    return text;
}

}  // namespace

LineMark CapturedOutput::mark() const {
    const std::lock_guard guard(mutex);
    return lines.size();
}

std::string CapturedOutput::raw_text() const {
    const std::lock_guard guard(mutex);
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text + unfinished_line;
}

std::vector<std::string> CapturedOutput::lines_since(LineMark from) const {
    const std::lock_guard guard(mutex);
    return {lines.begin() + static_cast<std::ptrdiff_t>(from), lines.end()};
}

std::size_t CapturedOutput::count(std::string_view line, LineMark from) const {
    const std::vector<std::string> since = lines_since(from);
    return static_cast<std::size_t>(std::ranges::count(since, line));
}

std::size_t CapturedOutput::count_starting(std::string_view prefix, LineMark from) const {
    const std::vector<std::string> since = lines_since(from);
    return static_cast<std::size_t>(
        std::ranges::count_if(since, [prefix](const std::string& line) { return line.starts_with(prefix); }));
}

LineMark CapturedOutput::wait_for_line_starting(std::string_view prefix, LineMark from, std::string* found,
                                                Milliseconds wait) const {
    const LineMark after = wait_until("a line that starts\n    " + std::string(prefix), from, wait,
                                      [&](std::size_t idx) { return lines[idx].starts_with(prefix); });
    if (found != nullptr) {
        *found = lines_since(after - 1).front();
    }
    return after;
}

LineMark CapturedOutput::wait_for_lines(const std::vector<std::string>& wanted, LineMark from,
                                        Milliseconds wait) const {
    std::size_t matched = 0;
    return wait_until("these lines in this order" + quoted_list(wanted), from, wait, [&](std::size_t idx) {
        matched += lines[idx] == wanted[matched] ? 1 : 0;
        return matched == wanted.size();
    });
}

LineMark CapturedOutput::wait_for_consecutive_lines(const std::vector<std::string>& wanted, LineMark from,
                                                    Milliseconds wait) const {
    return wait_until(
        "these lines one after the other" + quoted_list(wanted), from, wait, [&](std::size_t idx) {
            return idx + 1 >= from + wanted.size() &&
                   std::equal(wanted.rbegin(), wanted.rend(),
                              lines.rbegin() + static_cast<std::ptrdiff_t>(lines.size() - 1 - idx));
        });
}

void CapturedOutput::wait_for_count(std::string_view line, std::size_t times, LineMark from,
                                    Milliseconds wait) const {
    std::size_t found = 0;
    (void)wait_until(std::to_string(times) + " times the line\n    " + std::string(line), from, wait,
                     [&](std::size_t idx) {
                         found += lines[idx] == line ? 1 : 0;
                         return found == times;
                     });
}

void CapturedOutput::wait_for_end(Milliseconds wait) const {
    std::unique_lock guard(mutex);
    if (!changed.wait_for(guard, wait, [&] { return ended; })) {
        throw TestFailure("the server's " + name + " did not end");
    }
}

void CapturedOutput::append(std::string_view more) {
    const std::lock_guard guard(mutex);
    const std::size_t searched = unfinished_line.size();
    unfinished_line += more;
    std::size_t start = 0;
    for (std::size_t end = unfinished_line.find('\n', searched); end != std::string::npos;
         end = unfinished_line.find('\n', start)) {
        lines.push_back(unfinished_line.substr(start, end - start));
        start = end + 1;
    }
    unfinished_line.erase(0, start);
    changed.notify_all();
}

void CapturedOutput::set_ended() {
    const std::lock_guard guard(mutex);
    ended = true;
    changed.notify_all();
}

template <typename Found>
LineMark CapturedOutput::wait_until(const std::string& what, LineMark from, Milliseconds wait,
                                    Found found) const {
    std::unique_lock guard(mutex);
    std::size_t idx = from;
    bool is_found = false;
    changed.wait_for(guard, wait, [&] {
        while (!is_found && idx < lines.size()) {
            is_found = found(idx);
            ++idx;
        }
        return is_found || ended;
    });
    if (!is_found) {
        const std::size_t first = std::max(from, lines.size() - std::min(lines.size(), RECENT_LINES));
        throw TestFailure((ended ? "the server ended without " : "waited in vain for ") + what + "\n" + name +
                          ", the last lines since then:" +
                          quoted_list({lines.begin() + static_cast<std::ptrdiff_t>(first), lines.end()}));
    }
    return idx;
}

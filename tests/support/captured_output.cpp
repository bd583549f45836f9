#include "tests/support/captured_output.h"

#include <algorithm>
#include <optional>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t RECENT_LINES = 40;
constexpr std::size_t SHOWN_LINE_BYTES = 300;

std::string quoted_list(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += "\n    " + line;
    }
    return text;
}

}  // namespace

LineMark CapturedOutput::mark() const {
    const std::lock_guard guard(mutex);
    return line_count();
}

std::string CapturedOutput::raw_text() const {
    const std::lock_guard guard(mutex);
    return text;
}

std::vector<std::string> CapturedOutput::lines_since(LineMark from) const {
    const std::lock_guard guard(mutex);
    std::vector<std::string> lines;
    for (std::size_t i = from; i < line_count(); ++i) {
        lines.emplace_back(line_at(i));
    }
    return lines;
}

std::string CapturedOutput::unfinished_line() const {
    const std::lock_guard guard(mutex);
    return text.substr(line_starts.back());
}

std::size_t CapturedOutput::count(std::string_view line, LineMark from) const {
    const std::lock_guard guard(mutex);
    std::size_t found = 0;
    for (std::size_t i = from; i < line_count(); ++i) {
        found += line_at(i) == line ? 1 : 0;
    }
    return found;
}

std::size_t CapturedOutput::count_starting(std::string_view prefix, LineMark from) const {
    const std::lock_guard guard(mutex);
    std::size_t found = 0;
    for (std::size_t i = from; i < line_count(); ++i) {
        found += line_at(i).starts_with(prefix) ? 1 : 0;
    }
    return found;
}

LineMark CapturedOutput::wait_for_line(std::string_view line, LineMark from, Milliseconds wait) const {
    std::size_t idx = from;
    return wait_until("the line\n    " + std::string(line), from, wait, [&]() -> std::optional<LineMark> {
        for (; idx < line_count(); ++idx) {
            if (line_at(idx) == line) {
                return idx + 1;
            }
        }
        return std::nullopt;
    });
}

LineMark CapturedOutput::wait_for_line_starting(std::string_view prefix, LineMark from, std::string* found,
                                                Milliseconds wait) const {
    std::size_t idx = from;
    return wait_until("a line that starts\n    " + std::string(prefix), from, wait,
                      [&]() -> std::optional<LineMark> {
                          for (; idx < line_count(); ++idx) {
                              if (line_at(idx).starts_with(prefix)) {
                                  if (found != nullptr) {
                                      *found = line_at(idx);
                                  }
                                  return idx + 1;
                              }
                          }
                          return std::nullopt;
                      });
}

LineMark CapturedOutput::wait_for_lines(const std::vector<std::string>& lines, LineMark from,
                                        Milliseconds wait) const {
    std::size_t idx = from;
    std::size_t matched = 0;
    return wait_until("these lines in this order" + quoted_list(lines), from, wait,
                      [&]() -> std::optional<LineMark> {
                          for (; matched < lines.size() && idx < line_count(); ++idx) {
                              matched += line_at(idx) == lines[matched] ? 1 : 0;
                          }
                          if (matched == lines.size()) {
                              return idx;
                          }
                          return std::nullopt;
                      });
}

LineMark CapturedOutput::wait_for_consecutive_lines(const std::vector<std::string>& lines, LineMark from,
                                                    Milliseconds wait) const {
    std::size_t idx = from;
    return wait_until("these lines one after the other" + quoted_list(lines), from, wait,
                      [&]() -> std::optional<LineMark> {
                          for (; idx + lines.size() <= line_count(); ++idx) {
                              std::size_t matched = 0;
                              while (matched < lines.size() && line_at(idx + matched) == lines[matched]) {
                                  ++matched;
                              }
                              if (matched == lines.size()) {
                                  return idx + matched;
                              }
                          }
                          return std::nullopt;
                      });
}

void CapturedOutput::wait_for_count(std::string_view line, std::size_t times, LineMark from,
                                    Milliseconds wait) const {
    std::size_t idx = from;
    std::size_t found = 0;
    (void)wait_until(std::to_string(times) + " times the line\n    " + std::string(line), from, wait,
                     [&]() -> std::optional<LineMark> {
                         for (; found < times && idx < line_count(); ++idx) {
                             found += line_at(idx) == line ? 1 : 0;
                         }
                         if (found >= times) {
                             return idx;
                         }
                         return std::nullopt;
                     });
}

void CapturedOutput::wait_for_end(Milliseconds wait) const {
    std::unique_lock guard(mutex);
    if (!changed.wait_for(guard, wait, [&] { return ended; })) {
        throw TestFailure("the server's " + name + " did not end");
    }
}

void CapturedOutput::append(std::string_view more) {
    {
        const std::lock_guard guard(mutex);
        const std::size_t old_size = text.size();
        text += more;
        for (std::size_t i = text.find('\n', old_size); i != std::string::npos; i = text.find('\n', i + 1)) {
            line_starts.push_back(i + 1);
        }
    }
    changed.notify_all();
}

void CapturedOutput::set_ended() {
    {
        const std::lock_guard guard(mutex);
        ended = true;
    }
    changed.notify_all();
}

std::string_view CapturedOutput::line_at(std::size_t line_idx) const {
    const std::size_t start = line_starts[line_idx];
    return std::string_view(text).substr(start, line_starts[line_idx + 1] - 1 - start);
}

std::string CapturedOutput::recent_lines(LineMark from) const {
    std::string recent = "\n" + name + " since then (" +
                         std::to_string(line_count() - std::min(from, line_count())) + " lines):";
    const std::size_t first = line_count() > RECENT_LINES ? line_count() - RECENT_LINES : 0;
    for (std::size_t i = std::max(from, first); i < line_count(); ++i) {
        recent += "\n    " + std::string(line_at(i).substr(0, SHOWN_LINE_BYTES));
    }
    return recent;
}

template <typename Found>
LineMark CapturedOutput::wait_until(const std::string& what, LineMark from, Milliseconds wait,
                                    Found found) const {
    const TimePoint deadline = SteadyClock::now() + wait;
    std::unique_lock guard(mutex);
    while (true) {
        if (const std::optional<LineMark> mark = found()) {
            return *mark;
        }
        if (ended) {
            throw TestFailure("the server ended without " + what + recent_lines(from));
        }
        if (changed.wait_until(guard, deadline) == std::cv_status::timeout && !found()) {
            throw TestFailure("waited in vain for " + what + recent_lines(from));
        }
    }
}

#include "tools/v9_rtmp_ctl/usage_failure.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::size_t MAX_MISTAKES = 2;

// Returns the edit distance: letters inserted, deleted or replaced, and neighbors swapped.
std::size_t count_mistakes(std::string_view a, std::string_view b) {
    std::vector<std::size_t> before_last(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::iota(last.begin(), last.end(), 0);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::vector<std::size_t> row(b.size() + 1);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], before_last[j - 2] + 1);
            }
        }
        before_last = std::exchange(last, std::move(row));
    }
    return last[b.size()];
}

// Returns a sentence to append to another. Empty if no word is close.
std::string suggestion(const std::string& word, const std::vector<std::string>& known) {
    const std::string nearest = find_nearest(word, known);
    return nearest.empty() ? "" : " Did you mean '" + nearest + "'?";
}

}  // namespace

std::string find_nearest(std::string_view word, const std::vector<std::string>& known) {
    std::string nearest;
    std::size_t fewest = MAX_MISTAKES + 1;
    for (const std::string& candidate : known) {
        if (word.size() > candidate.size() + MAX_MISTAKES) {
            continue;
        }
        const std::size_t mistakes = count_mistakes(word, candidate);
        // In a short word, two mistakes leave too little in common.
        if (mistakes < fewest && 2 * mistakes < std::max(word.size(), candidate.size())) {
            fewest = mistakes;
            nearest = candidate;
        }
    }
    return nearest;
}

Failure usage_failure(const std::string& reason, const std::string& command) {
    const std::string text = escape_untrusted(reason);
    const bool ends_a_sentence = text.ends_with('.') || text.ends_with('?');
    return {ExitCode::USAGE, text + (ends_a_sentence ? "" : ".") + " Try 'v9_rtmp_ctl help" +
                                 (command.empty() ? "" : " ") + command + "'."};
}

Failure nothing_to_do() {
    return {ExitCode::USAGE,
            "a command is required. The usual ones:\n"
            "\n"
            "  hello    whether the server answers, and which processes listen\n"
            "  list     who is connected\n"
            "  streams  who publishes each stream, how many play it, and the data rates\n"
            "  watch    the same, updated live\n"
            "  drop     end connections by id, stream or address\n"
            "\n"
            "'v9_rtmp_ctl help' shows all commands, and 'v9_rtmp_ctl help list' shows the options of list."};
}

Failure nothing_to_drop() {
    return {ExitCode::USAGE,
            "drop needs a target: 'drop id 5', 'drop stream cam1', 'drop address 203.0.113.0/24' or "
            "'drop unnamed'. With --dry-run, each shows what it would drop; 'v9_rtmp_ctl list' shows ids and "
            "addresses."};
}

Failure unknown_command(const std::string& parent, const std::string& word,
                        const std::vector<std::string>& known) {
    return usage_failure((parent.empty() ? "there is no command " : "'" + parent + "' has no command ") +
                             quote_untrusted(word) + "." + suggestion(word, known),
                         parent);
}

Failure unknown_option(const std::string& command, const std::string& word,
                       const std::vector<std::string>& known) {
    const std::string name = word.substr(0, word.find('='));
    return usage_failure((command.empty() ? "there is no option " : "'" + command + "' has no option ") +
                             quote_untrusted(name) + "." + suggestion(name, known),
                         command);
}

Failure too_many_words(const std::string& command, const std::vector<std::string>& words) {
    std::string list;
    for (const std::string& word : words) {
        list += (list.empty() ? "" : " ") + quote_untrusted(word);
    }
    return usage_failure(
        "'" + command + "' does not take " + list + (words.size() == 1 ? ". Omit it." : ". Omit them."),
        command);
}

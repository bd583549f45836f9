#include "tests/fault/session_comparison.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

namespace {

constexpr Times ONCE{1, 1};

class Comparison {
  public:
    Comparison(const DocumentedOutcome& expectation, const SessionStory& told, const std::string& printed)
        : expected(expectation), story(told), text(printed) {}

    std::string run() {
        if (!expected.last_words.empty()) {
            compare_end();
            return problem;
        }
        if (story.end) {
            complain("the server ended, status " + std::to_string(story.end->status) + ", signal " +
                     std::to_string(story.end->signal));
            return problem;
        }
        find_dropped();
        compare_clients();
        compare_acknowledgements();
        compare_control();
        compare_texts();
        if (story.fds_left != 0) {
            complain(std::to_string(story.fds_left) + " descriptors are left");
        }
        return problem;
    }

  private:
    void complain(const std::string& what) { problem += what + "\n"; }

    void compare_end() {
        if (!story.end || story.end->signal != SIGABRT) {
            complain("the server did not abort");
        }
        if (text.find(expected.last_words) == std::string::npos) {
            complain("the server did not say: " + expected.last_words);
        }
    }

    // Determines which client was dropped if the record does not say: any that was.
    void find_dropped() {
        dropped = expected.drops ? expected.dropped : NO_CLIENT;
        for (std::size_t i = 0; i < SESSION_CLIENTS && expected.drops && dropped == NO_CLIENT; ++i) {
            dropped = story.clients[i].dropped ? i : NO_CLIENT;
        }
        if (expected.drops && dropped >= SESSION_CLIENTS) {
            complain("no client was dropped");
        }
    }

    bool publisher_was_dropped(std::size_t client) const {
        return is_player(client) && dropped == (is_first_stream(client) ? FIRST_PUBLISHER : SECOND_PUBLISHER);
    }

    void compare_clients() {
        std::size_t missing = 0;
        for (std::size_t i = 0; i < SESSION_CLIENTS; ++i) {
            const ClientStory& client = story.clients[i];
            if (client.dropped && i != dropped) {
                complain("client " + std::to_string(i) + " was dropped");
            } else if (i == dropped) {
                compare_dropped(i);
            } else if (publisher_was_dropped(i)) {
                compare_cut(i);
            } else if (client.received != whole_transcript(i)) {
                ++missing;
                compare_missing(i);
            }
        }
        const bool some =
            expected.missing != Missing::NOTHING && expected.missing != Missing::REPLY_BEFORE_DROP;
        const bool may_be_none = !some || expected.missing == Missing::A_HEADER_OR_NOTHING;
        const std::size_t most = expected.missing == Missing::METADATA_OF_A_STREAM ? SESSION_CLIENTS
                                 : some                                            ? expected.most_who_miss
                                                                                   : 0;
        if (missing > most || (missing == 0 && !may_be_none)) {
            complain(std::to_string(missing) + " clients missed something");
        }
    }

    void complain_of(std::size_t client, const std::string& what) {
        complain("client " + std::to_string(client) + " " + what + ": received " +
                 testing::PrintToString(story.clients[client].received) + " of " +
                 testing::PrintToString(whole_transcript(client)));
    }

    // Requires that the client received everything up to the end of its connection. If that end came after
    // the last message, only the server noticed it.
    void compare_dropped(std::size_t client) {
        const Transcript& received = story.clients[client].received;
        Transcript whole = whole_transcript(client);
        const auto first = std::mismatch(whole.begin(), whole.end(), received.begin(), received.end()).first;
        if (expected.missing == Missing::REPLY_BEFORE_DROP && first != whole.end() && may_be_missed(*first)) {
            const bool never_subscribed = *first == "status" && is_player(client);
            whole.erase(first);
            if (never_subscribed) {
                whole.erase(std::remove_if(whole.begin(), whole.end(), is_media), whole.end());
            }
        }
        if (received.size() > whole.size() || !std::equal(received.begin(), received.end(), whole.begin())) {
            complain_of(client, "was dropped, but what it got before is wrong");
        }
        if (!story.clients[client].dropped && received.size() != whole.size()) {
            complain_of(client, "was not dropped");
        }
    }

    // The client received all replies, and the media up to the end of the publisher.
    void compare_cut(std::size_t client) {
        const auto part = [](const Transcript& transcript, bool media) {
            Transcript wanted;
            std::copy_if(transcript.begin(), transcript.end(), std::back_inserter(wanted),
                         [&](const std::string& one) { return is_media(one) == media; });
            return wanted;
        };
        const Transcript& received = story.clients[client].received;
        const Transcript& whole = whole_transcript(client);
        const Transcript media = part(received, true);
        const Transcript whole_media = part(whole, true);
        if (part(received, false) != part(whole, false) || media.size() > whole_media.size() ||
            !std::equal(media.begin(), media.end(), whole_media.begin())) {
            complain_of(client, "was disturbed by more than the end of its publisher");
        }
    }

    bool may_be_missed(const std::string& message) const {
        switch (expected.missing) {
            case Missing::NOTHING:
                return false;
            case Missing::ONE_MESSAGE:
                return is_media(message) && message != "metadata";
            case Missing::A_HEADER:
            case Missing::A_HEADER_OR_NOTHING:
                return message == "audio header" || message == "video header";
            case Missing::METADATA:
            case Missing::METADATA_OF_A_STREAM:
                return message == "metadata";
            case Missing::CHUNK_SIZE:
                return message == "chunk size";
            case Missing::REPLY_BEFORE_DROP:
                return message == "result" || message == "status" || message == "answer";
        }
        return false;
    }

    // The client received exactly one message less.
    void compare_missing(std::size_t client) {
        const Transcript& received = story.clients[client].received;
        Transcript whole = whole_transcript(client);
        const auto first = std::mismatch(whole.begin(), whole.end(), received.begin(), received.end()).first;
        const bool right_client = expected.misses == NO_CLIENT || expected.misses == client;
        if (first == whole.end() || !may_be_missed(*first) || !right_client) {
            complain_of(client, "was disturbed");
            return;
        }
        whole.erase(first);
        if (received != whole) {
            complain_of(client, "missed more than one message");
        }
    }

    void compare_acknowledgements() {
        for (std::size_t i = 0; i < SESSION_CLIENTS; ++i) {
            const std::vector<std::uint64_t>& told = story.clients[i].acknowledged;
            const std::vector<std::uint64_t>& due = story.clients[i].to_acknowledge;
            const auto [in_told, in_due] = std::mismatch(told.begin(), told.end(), due.begin(), due.end());
            bool as_expected = told == due;
            if (i == dropped) {
                as_expected =
                    in_told == told.end();  // Depends on how far its reader and its writer had come.
            } else if (i == expected.misses_acknowledgement) {
                as_expected = in_due != due.end() && std::equal(in_told, told.end(), in_due + 1, due.end());
            }
            if (!as_expected) {
                complain("client " + std::to_string(i) + " was acknowledged " + testing::PrintToString(told) +
                         " of " + testing::PrintToString(due));
            }
        }
    }

    // Returns the fields of a client's listing between its slot and its video size.
    static std::string role_of(std::size_t client) {
        return std::string("\t") + (is_first_stream(client) ? "cam1" : "cam2") + '\t' +
               (is_player(client) ? "play" : "publish") + '\t';
    }

    void compare_control() {
        const ControlStory& control = story.control;
        if (control.peers == 0) {
            // If the socket is expected to be lost, this may have happened after its last reply.
            if (!expected.control_socket_lost) {
                complain("the control socket was lost");
            }
            return;
        }
        if (control.peers != (expected.control_client_lost ? 2 : 1)) {
            complain(std::to_string(control.peers) + " control clients were needed");
        }
        if (control.listed.has_value() != (expected.control_answer_lost != 1) ||
            control.dropped.has_value() != (expected.control_answer_lost != 2)) {
            complain("the control server left out another answer than it had to, or none");
        }
        if (control.peers == 1 && control.listed && control.dropped) {
            compare_list(*control.listed, *control.dropped);
        }
    }

    void compare_list(const std::vector<std::string>& lines, const std::string& drop_message) {
        const auto count = [&](const std::string& part, bool without_lock) {
            return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return line.find(part) != std::string::npos && (!without_lock || line.ends_with("\t\t\t"));
            });
        };
        for (std::size_t i = 0; i < SESSION_CLIENTS; ++i) {
            std::ptrdiff_t alike = 0;
            std::ptrdiff_t unlocked = 0;
            bool one_is_dropped = false;
            for (std::size_t j = 0; j < SESSION_CLIENTS; ++j) {
                if (role_of(i) == role_of(j)) {
                    ++alike;
                    unlocked += j == expected.listed_without_lock ? 1 : 0;
                    one_is_dropped = one_is_dropped || j == dropped;
                }
            }
            const std::ptrdiff_t listed = count(role_of(i), false);
            if (listed > alike || listed < alike - (one_is_dropped ? 1 : 0)) {
                complain(std::to_string(listed) + " clients are listed as" + role_of(i));
            }
            if (count(role_of(i), true) != unlocked) {
                complain("not listed as they should be: those with" + role_of(i));
            }
        }
        const std::string in_first_stream = std::to_string(count("\tcam1\t", false));
        if (drop_message != "OK, " + in_first_stream + " connections dropped") {
            complain("the drop was answered with: " + drop_message);
        }
    }

    Ending ending_of(std::size_t client) const {
        if (client == dropped) {
            return expected.ending;
        }
        const bool by_control = is_first_stream(client) && story.control.peers != 0;
        return by_control ? Ending::DROPPED_BY_CONTROL : Ending::CLIENT_LEFT;
    }

    // Returns the expected error texts, each with how often it may appear.
    std::map<std::string, Times> expected_texts() const {
        std::map<std::string, Times> texts = expected.texts;
        const auto add = [&](const std::string& line, Times times) {
            texts[line].least += times.least;
            texts[line].most += times.most;
        };
        add("Dropping connection", {SESSION_CLIENTS, SESSION_CLIENTS});
        for (std::size_t i = 0; i < SESSION_CLIENTS; ++i) {
            // If a client leaves just as its writer dies, its reader is dead as well. If a thread died just
            // before a drop, the drop finds it dead.
            const bool late = i == dropped && !story.clients[i].dropped;
            const Times seldom{0, late ? 1 : 0};
            const Times surely{late ? 0 : 1, 1};
            switch (ending_of(i)) {
                case Ending::DROPPED_BY_CONTROL:
                    break;
                case Ending::CLIENT_LEFT:
                    add("Thread 1 died", ONCE);
                    add("WARNING: Thread terminated unexpectedly", ONCE);
                    break;
                case Ending::READER_DIED:
                    add("Thread 1 died", surely);
                    add("WARNING: Thread terminated unexpectedly", surely);
                    add("Not cancelling thread, it died", seldom);
                    break;
                case Ending::WRITER_DIED:
                    add("Thread 2 died", surely);
                    add("WARNING: Thread2 terminated unexpectedly", surely);
                    add("Not cancelling thread2, it died", seldom);
                    add("Thread 1 died", seldom);
                    add("WARNING: Thread terminated unexpectedly", seldom);
                    break;
                case Ending::DROPPED_BY_SERVER:
                    add("Thread 1 died", seldom);
                    add("WARNING: Thread terminated unexpectedly", seldom);
                    add("Not cancelling thread, it died", seldom);
                    break;
            }
        }
        return texts;
    }

    static bool tells_of_trouble(const std::string& line) {
        for (const char* const sign :
             {"WARNING", "ail", "rror", "died", "Assertion", "BUG", "Unable", "eject", "Dropping",
              "terminate", "ERROR", "Unknown", "unexpected", "Lost"}) {
            if (line.find(sign) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    void compare_texts() {
        std::string rest = text;
        const std::string idle_failed = "Idle failed: Invalid argument";  // no newline
        const std::size_t found = rest.find(idle_failed);
        if ((found != std::string::npos) != expected.control_socket_lost) {
            complain("the control socket was lost, or it should have been");
        }
        if (found != std::string::npos) {
            rest.erase(found, idle_failed.size());
        }
        std::map<std::string, int> printed;
        std::istringstream lines(rest);
        for (std::string line; std::getline(lines, line);) {
            if (tells_of_trouble(line)) {
                ++printed[line];
            }
        }
        std::map<std::string, Times> wanted = expected_texts();
        for (const auto& [line, times] : printed) {
            if (times < wanted[line].least || times > wanted[line].most) {
                complain(std::to_string(times) + " times: " + line);
            }
            wanted.erase(line);
        }
        for (const auto& [line, times] : wanted) {
            if (times.least > 0) {
                complain("never: " + line);
            }
        }
    }

    const DocumentedOutcome& expected;
    const SessionStory& story;
    const std::string& text;
    std::size_t dropped = NO_CLIENT;
    std::string problem;
};

}  // namespace

std::string differences(const DocumentedOutcome& expected, const SessionStory& story,
                        const std::string& text) {
    return Comparison(expected, story, text).run();
}

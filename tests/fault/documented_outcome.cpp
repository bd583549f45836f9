#include "tests/fault/documented_outcome.h"

#include <algorithm>
#include <csignal>
#include <limits>
#include <map>
#include <sstream>
#include <vector>

namespace {

constexpr std::size_t NOBODY = std::numeric_limits<std::size_t>::max();

struct Times {
    int least = 0;
    int most = 0;
};

// How a connection comes to its end.
enum class Ending { DROPPED_BY_CONTROL, CLIENT_LEFT, READER_DIED, WRITER_DIED, DROPPED_BY_SERVER };

// What one client may miss. Who it is, where that can be known, says `misses`.
enum class Missing {
    NOTHING,
    ONE_MESSAGE,
    A_HEADER,
    A_HEADER_OR_NOTHING,
    METADATA,
    CHUNK_SIZE,
    REPLY_BEFORE_DROP
};

struct Expected {
    std::string outcome = "nothing changes";
    // Who is dropped; ANY: one whose identity the record does not tell.
    bool drops = false;
    std::size_t dropped = NOBODY;
    Ending ending = Ending::DROPPED_BY_SERVER;
    Missing missing = Missing::NOTHING;
    std::size_t misses = NOBODY;
    // Beside those that every session prints.
    std::map<std::string, Times> texts;
    // The process ends by an assertion, or for want of memory.
    std::string last_words;
    bool control_socket_lost = false;
    bool control_client_lost = false;
    bool control_reply_lost = false;
    std::size_t listed_without_lock = NOBODY;
};

constexpr Times ONCE{1, 1};

std::string assertion(const std::string& function, const std::string& expression) {
    return "v9_rtmp_server: " + function + ": Assertion '" + expression + "' failed.";
}

Expected nothing_changes() {
    return {};
}

Expected reader_dies(const FaultRecord& record, const std::vector<std::string>& texts = {}) {
    Expected expected;
    expected.outcome = "the reader dies, " + (texts.empty() ? "in silence" : texts.front());
    expected.drops = true;
    expected.dropped = record.connection;
    expected.ending = Ending::READER_DIED;
    for (const std::string& text : texts) {
        expected.texts[text] = ONCE;
    }
    return expected;
}

Expected process_ends(const std::string& last_words) {
    Expected expected;
    expected.outcome = "ends: " + last_words;
    expected.last_words = last_words;
    return expected;
}

// ---- by kind of call

Expected after_recv(const FaultWatch& watch, const std::string& action) {
    const FaultRecord& record = watch.first();
    Expected expected;
    if (action == "short") {
        return expected;
    }
    if (record.thread == FaultThread::MAIN) {
        if (action != "EINTR") {
            // Requests that had come before are still carried out, and cannot be answered.
            expected.outcome = "that control client is closed";
            expected.control_client_lost = true;
            expected.texts["Unable to send packet: Input/output error"] = {0, 3};
        }
        return expected;
    }
    if (!watch.came_through("RTMPConnection::handshake")) {
        return reader_dies(record);
    }
    // C0 and C1 come together, so each part takes one call.
    const std::string part = "C" + std::to_string(record.call_of_thread - 1) + " fail";
    return reader_dies(record, {part, "RTMP handshake failed"});
}

Expected after_send(const FaultWatch& watch, const std::string& action) {
    if (action == "short") {
        return nothing_changes();
    }
    const std::string part = "S" + std::to_string(watch.first().call_of_thread - 1) + " fail";
    return reader_dies(watch.first(), {part, "RTMP handshake failed"});
}

Expected after_sendmsg(const FaultWatch& watch, const std::string& action) {
    const FaultRecord& record = watch.first();
    Expected expected;
    if (action == "short") {
        return expected;
    }
    if (record.thread == FaultThread::WRITER) {
        expected.outcome = "the writer dies";
        expected.drops = true;
        expected.dropped = record.connection;
        expected.ending = Ending::WRITER_DIED;
        return expected;
    }
    if (action != "EINTR") {
        // Nothing more can be sent to it: the other two answers are lost with this one.
        expected.outcome = "that control client gets no more answers";
        expected.control_client_lost = true;
        const int answers_lost = 4 - static_cast<int>(record.call_of_thread);
        expected.texts["Unable to send packet: Broken pipe"] = {answers_lost, answers_lost};
    }
    return expected;
}

Expected after_accept4(const FaultWatch& watch, const std::string& action) {
    Expected expected;
    if (watch.first().on_control_socket != 0 && action == "EINVAL") {
        expected.outcome = "the control socket is given up";
        expected.control_socket_lost = true;
    }
    return expected;
}

Expected after_setsockopt(const FaultWatch& watch) {
    Expected expected;
    if (watch.came_through("open_listener")) {
        const std::string option = watch.first().call_of_thread == 1 ? "SO_REUSEADDR" : "SO_REUSEPORT";
        expected.outcome = "a warning";
        expected.texts["WARNING: IPTV out cannot set " + option] = ONCE;
    }
    return expected;
}

Expected after_pthread_create(const FaultWatch& /*watch*/, std::uint64_t thread_idx) {
    Expected expected;
    expected.outcome = "a warning, dropped on the same pass";
    expected.drops = true;
    expected.dropped = thread_idx / 2;
    expected.ending = Ending::DROPPED_BY_SERVER;
    expected.texts["WARNING: Failure to create thread"] = ONCE;
    return expected;
}

Expected after_pthread_cancel(const FaultWatch& watch) {
    Expected expected;
    expected.outcome = "a warning";
    expected
        .texts[watch.first().target_thread == FaultThread::READER ? "WARNING: Failure to cancel thread"
                                                                  : "WARNING: Failure to cancel thread2"] =
        ONCE;
    return expected;
}

Expected after_pthread_join(const FaultWatch& watch) {
    const bool is_reader = watch.first().target_thread == FaultThread::READER;
    Expected expected;
    if (watch.came_through("RTMPConnection::reap_dead_threads")) {
        expected.outcome = "joined on the next pass";
        expected.texts[is_reader ? "Thread 1 died" : "Thread 2 died"] = ONCE;  // once more
        return expected;
    }
    expected.outcome = "a warning";
    expected.texts[is_reader ? "WARNING: Failure to pthread_join" : "WARNING: Failure to pthread_join2"] =
        ONCE;
    return expected;
}

bool is_repeated_header(const FaultWatch& watch) {
    return watch.came_through("deliver_sequence_header") || watch.came_through("repeat_header");
}

Expected after_lock_of_main(const FaultWatch& watch) {
    const FaultRecord& record = watch.first();
    Expected expected;
    if (watch.came_through("RTMPConnection::ok")) {
        expected.outcome = "Lock fail, dropped";
        expected.drops = true;
        expected.dropped = record.connection;
        expected.texts["Lock fail"] = ONCE;
    } else if (is_repeated_header(watch)) {
        expected.outcome = "a repeated header is missed";
        expected.missing = Missing::A_HEADER;
        expected.misses = record.connection;
    } else if (watch.came_through("RTMPConnection::relay_from_publisher")) {
        expected.outcome = "Relay fail, a message is missed";
        expected.missing = Missing::ONE_MESSAGE;
        expected.misses = record.connection;
        expected.texts["Relay fail"] = ONCE;
    } else if (watch.came_through("forward_metadata_to_players")) {
        expected.outcome = "metadata is missed";
        expected.missing = Missing::METADATA;
        expected.misses = record.connection;
    } else if (watch.came_through("connection_line")) {
        expected.outcome = "listed without what the lock guards";
        expected.listed_without_lock = record.connection;
    } else {
        expected.outcome = watch.came_through("RTMPConnection::idle") ? "tried again on the next pass"
                                                                      : "UNKNOWN CALLER " + watch.describe();
    }
    return expected;
}

Expected after_mutex_lock(const FaultWatch& watch) {
    const FaultRecord& record = watch.first();
    switch (record.thread) {
        case FaultThread::MAIN:
            return after_lock_of_main(watch);
        case FaultThread::READER:
            return watch.came_through("RTMPConnection::add_to_incoming_queue")
                       ? reader_dies(record, {"Failure to add to queue"})
                       : reader_dies(record);
        case FaultThread::WRITER:
            break;
    }
    Expected expected;
    expected.outcome = "the writer tries again";
    return expected;
}

Expected after_mutex_unlock(const FaultWatch& watch) {
    struct Site {
        const char* caller;
        const char* named;
        bool other;  // another connection than the thread's or the pass's own
    };
    // The more particular come first.
    for (const Site& site :
         {Site{"RTMPConnection::ok", "ok", false},
          Site{"RTMPConnection::relay_from_publisher", "queue_outgoing", true},
          Site{"forward_metadata_to_players", "forward_metadata_to_players", true},
          Site{"connection_line", "connection_line", true}, Site{"queue_outgoing", "queue_outgoing", false},
          Site{"take_outgoing", "take_outgoing", false},
          Site{"RTMPConnection::add_to_incoming_queue", "add_to_incoming_queue", false},
          Site{"queue_acknowledgement", "queue_acknowledgement", false},
          Site{"wait_for_room_in_incoming_queue", "incoming_queue_is_full", false},
          Site{"RTMPConnection::idle", "dispatch_front_message", false}}) {
        if (watch.came_through(site.caller)) {
            return process_ends(
                assertion(site.named, site.other ? "p->connection_io_unlock()" : "connection_io_unlock()"));
        }
    }
    return process_ends("UNKNOWN CALLER " + watch.describe());
}

Expected after_nothrow_new_on_main(const FaultWatch& watch) {
    Expected expected;
    if (watch.came_through("queue_reply")) {
        // What had come together with the command is still handled, and answered.
        expected.outcome = "AMF0 error command, dropped";
        expected.drops = true;
        expected.missing = Missing::REPLY_BEFORE_DROP;
        expected.texts["AMF0 error command"] = ONCE;
    } else if (watch.came_through("send_metadata") || watch.came_through("handle_play") ||
               watch.came_through("forward_metadata_to_players")) {
        expected.outcome = "metadata is missed";
        expected.missing = Missing::METADATA;
    } else if (is_repeated_header(watch)) {
        expected.outcome = "a repeated header is missed";
        expected.missing = Missing::A_HEADER;
        expected.misses = LATE_PLAYER;
    } else if (watch.came_through("RTMPConnection::relay_from_publisher")) {
        expected.outcome = "Relay fail, a message is missed";
        expected.missing = Missing::ONE_MESSAGE;
        expected.texts["Relay fail"] = ONCE;
    } else if (watch.came_through("relay_published_packet")) {
        // Of the second stream nobody would have had it.
        expected.outcome = "a header is not kept";
        expected.missing = Missing::A_HEADER_OR_NOTHING;
        expected.misses = LATE_PLAYER;
    } else {
        expected.outcome = "UNKNOWN CALLER " + watch.describe();
        expected.drops = true;
    }
    return expected;
}

Expected after_nothrow_new(const FaultWatch& watch) {
    const FaultRecord& record = watch.first();
    if (record.thread == FaultThread::MAIN) {
        return after_nothrow_new_on_main(watch);
    }
    if (watch.came_through("RTMPConnection::rtmp_read_packet")) {
        return reader_dies(record, {"Failed to alloc pkt data"});
    }
    Expected expected;
    if (watch.came_through("queue_acknowledgement")) {
        expected.outcome = "an acknowledgement is missed";
    } else {
        expected.outcome = "the chunk size is not echoed";
        expected.missing = Missing::CHUNK_SIZE;
        expected.misses = record.connection;
    }
    return expected;
}

Expected after_new(const FaultWatch& watch) {
    Expected expected;
    if (watch.came_through("comm_socket_v4_packet_create")) {
        return process_ends(assertion("answer", "respkt != NULL"));
    }
    if (watch.came_through("comm_socket_v4_packet_begin_writing")) {
        return process_ends(assertion(
            "begin_reply", "comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0"));
    }
    if (watch.came_through("comm_socket::write_pair")) {
        return process_ends(
            assertion("write_pair", "comm_socket_v4_packet_write_nv_pair(respkt, name, value) == 0"));
    }
    if (watch.came_through("comm_socket_v4_packet_send_to_client")) {
        expected.outcome = "that control client misses an answer";
        expected.control_reply_lost = true;
        expected.texts["Unable to send packet: Cannot allocate memory"] = ONCE;
        return expected;
    }
    if (watch.came_through("comm_socket_v4_idle") || watch.came_through("comm_socket_v4_server_get_packet")) {
        expected.outcome = "that control client is closed";
        expected.control_client_lost = true;
        return expected;
    }
    return process_ends("terminate called after throwing an instance of 'std::bad_alloc'");
}

Expected expected_after(FaultCall call, const std::string& action, const FaultWatch& watch) {
    switch (call) {
        case FaultCall::ACCEPT4:
            return after_accept4(watch, action);
        case FaultCall::SETSOCKOPT:
            return after_setsockopt(watch);
        case FaultCall::RECV:
            return after_recv(watch, action);
        case FaultCall::SEND:
            return after_send(watch, action);
        case FaultCall::SENDMSG:
            return after_sendmsg(watch, action);
        case FaultCall::PTHREAD_CREATE:
            return after_pthread_create(watch, watch.first().call_of_thread - 1);
        case FaultCall::PTHREAD_CANCEL:
            return after_pthread_cancel(watch);
        case FaultCall::PTHREAD_JOIN:
            return after_pthread_join(watch);
        case FaultCall::PTHREAD_MUTEX_LOCK:
            return after_mutex_lock(watch);
        case FaultCall::PTHREAD_MUTEX_UNLOCK:
            return after_mutex_unlock(watch);
        case FaultCall::NOTHROW_NEW:
            return after_nothrow_new(watch);
        case FaultCall::NEW:
            return after_new(watch);
        case FaultCall::SOCKET:
        case FaultCall::BIND:
        case FaultCall::LISTEN:
            break;  // Without these there is no session.
    }
    return process_ends("no session without this call");
}

// ---- the comparison

std::string joined(const Transcript& transcript) {
    std::string text;
    for (const std::string& one : transcript) {
        text += (text.empty() ? "" : ", ") + one;
    }
    return "[" + text + "]";
}

class Comparison {
  public:
    Comparison(const Expected& expectation, const SessionStory& told, const std::string& printed)
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
        compare_control();
        compare_texts();
        const std::size_t fds = story.fds_before - (expected.control_socket_lost ? 1 : 0);
        if (story.fds_after != fds) {
            complain(std::to_string(story.fds_after) + " descriptors are left, not " + std::to_string(fds));
        }
        return problem;
    }

  private:
    void complain(const std::string& what) { problem += what + "\n"; }

    void compare_end() {
        if (!story.end || story.end->signal != SIGABRT) {
            complain("the server did not abort");
        }
        if (text.find(expected.last_words + "\n") == std::string::npos) {
            complain("the server did not say: " + expected.last_words);
        }
    }

    // Who was dropped, where the record does not tell: whoever was.
    void find_dropped() {
        dropped = expected.drops ? expected.dropped : NOBODY;
        for (std::size_t i = 0; i < SESSION_CLIENTS && expected.drops && dropped == NOBODY; ++i) {
            dropped = story.clients[i].dropped ? i : NOBODY;
        }
        if (expected.drops && dropped >= SESSION_CLIENTS) {
            complain("nobody was dropped");
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
        if (missing > (some ? 1U : 0U) || (missing == 0 && !may_be_none)) {
            complain(std::to_string(missing) + " clients missed something");
        }
    }

    void complain_of(std::size_t client, const std::string& what) {
        complain("client " + std::to_string(client) + " " + what + ": received " +
                 joined(story.clients[client].received) + " of " + joined(whole_transcript(client)));
    }

    // It got everything up to its end. If that came after its last message, nobody but the server knew.
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

    // All answers, and the media up to the end of the publisher.
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
                return message == "metadata";
            case Missing::CHUNK_SIZE:
                return message == "chunk size";
            case Missing::REPLY_BEFORE_DROP:
                return message == "result" || message == "status" || message == "answer";
        }
        return false;
    }

    // Exactly one message less.
    void compare_missing(std::size_t client) {
        const Transcript& received = story.clients[client].received;
        Transcript whole = whole_transcript(client);
        const auto first = std::mismatch(whole.begin(), whole.end(), received.begin(), received.end()).first;
        const bool right_client = expected.misses == NOBODY || expected.misses == client;
        if (first == whole.end() || !may_be_missed(*first) || !right_client) {
            complain_of(client, "was disturbed");
            return;
        }
        whole.erase(first);
        if (received != whole) {
            complain_of(client, "missed more than one message");
        }
    }

    // What a listing says of a client between its slot and its video size.
    static std::string role_of(std::size_t client) {
        return std::string("\t") + (is_first_stream(client) ? "cam1" : "cam2") + '\t' +
               (is_player(client) ? "play" : "publish") + '\t';
    }

    void compare_control() {
        const ControlStory& control = story.control;
        if (control.peers == 0) {
            // Where the socket is expected to be lost, it may have been after its last answer.
            if (!expected.control_socket_lost) {
                complain("the control socket was lost");
            }
            return;
        }
        if (control.peers > (expected.control_client_lost ? 2 : 1)) {
            complain(std::to_string(control.peers) + " control clients were needed");
        }
        if ((!control.dropped || !control.listed) && !expected.control_reply_lost) {
            complain("the control server did not answer");
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

    // Those that tell of trouble, each with how often it may stand there.
    std::map<std::string, Times> expected_texts() const {
        std::map<std::string, Times> texts = expected.texts;
        const auto add = [&](const std::string& line, Times times) {
            texts[line].least += times.least;
            texts[line].most += times.most;
        };
        add("Dropping connection", {SESSION_CLIENTS, SESSION_CLIENTS});
        for (std::size_t i = 0; i < SESSION_CLIENTS; ++i) {
            // A client that leaves just when its writer dies leaves a dead reader as well. And a thread that died just
            // before a drop is found dead by the drop.
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
        const std::string idle_failed = "Idle failed: Invalid argument";  // no line end
        if (const std::size_t found = rest.find(idle_failed); found != std::string::npos) {
            rest.erase(found, idle_failed.size());
        } else if (expected.control_socket_lost) {
            complain("the server did not say: " + idle_failed);
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

    const Expected& expected;
    const SessionStory& story;
    const std::string& text;
    std::size_t dropped = NOBODY;
    std::string problem;
};

}  // namespace

Verdict judge(FaultCall call, const std::string& action, const FaultWatch& watch, const SessionStory& story,
              const std::string& text) {
    const Expected expected = watch.injected() == 0 ? nothing_changes() : expected_after(call, action, watch);
    return {watch.injected() == 0 ? "not reached" : expected.outcome,
            Comparison(expected, story, text).run()};
}

#include "tests/fault/documented_outcome.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace {

constexpr Times ONCE{1, 1};

std::string assertion(const std::string& function, const std::string& expression) {
    return "v9_rtmp_server: " + function + ": Assertion '" + expression + "' failed.";
}

DocumentedOutcome reader_dies(const FaultRecord& record, const std::vector<std::string>& texts = {}) {
    DocumentedOutcome expected{
        .in_short = "the reader dies, " + (texts.empty() ? "in silence" : texts.front()),
        .drops = true,
        .dropped = record.connection,
        .ending = Ending::READER_DIED,
    };
    for (const std::string& text : texts) {
        expected.texts[text] = ONCE;
    }
    return expected;
}

DocumentedOutcome process_ends(const std::string& last_line) {
    return {.in_short = "ends: " + last_line, .last_words = last_line + "\n"};
}

// A call from a place that has no row here. No session has this outcome.
DocumentedOutcome unknown_caller(const FaultWatch& watch) {
    return process_ends("UNKNOWN CALLER " + watch.describe());
}

// The three requests arrive together. The replies are sent one by one, each in one call, before the socket is
// read again. The client waits for two of them.
constexpr std::uint32_t CONTROL_REQUESTS = 3;
constexpr std::uint32_t CONTROL_ANSWERS_AWAITED = 2;

DocumentedOutcome control_client_closes(std::uint32_t answers_sent) {
    if (answers_sent < CONTROL_ANSWERS_AWAITED) {
        return {.in_short = "that control client is closed", .control_client_lost = true};
    }
    return {.in_short = "that control client is closed, after its answers"};
}

void expect_unsent(DocumentedOutcome& expected, const std::string& reason, std::uint32_t answers) {
    const int times = static_cast<int>(answers);
    expected.texts["Unable to send packet: " + reason] = {times, times};
}

// ---- by kind of call

DocumentedOutcome after_recv(const FaultWatch& watch, int error) {
    const FaultRecord& record = watch.page().first;
    if (record.thread == FaultThread::MAIN) {
        if (error == EINTR) {
            return {};
        }
        const std::uint32_t sent = std::min(record.sendmsg_calls, CONTROL_REQUESTS);
        DocumentedOutcome expected = control_client_closes(sent);
        // Requests that arrived earlier are still carried out, but cannot be answered.
        expect_unsent(expected, "Input/output error",
                      record.received_bytes != 0 ? CONTROL_REQUESTS - sent : 0);
        return expected;
    }
    if (!watch.came_through("RTMPConnection::handshake")) {
        return reader_dies(record);
    }
    // C0 and C1 arrive together, so each part takes one call.
    const std::string part = "C" + std::to_string(record.call_of_thread - 1) + " fail";
    return reader_dies(record, {part, "RTMP handshake failed"});
}

DocumentedOutcome after_send(const FaultRecord& record) {
    const std::string part = "S" + std::to_string(record.call_of_thread - 1) + " fail";
    return reader_dies(record, {part, "RTMP handshake failed"});
}

DocumentedOutcome after_sendmsg(const FaultRecord& record, int error) {
    if (record.thread == FaultThread::WRITER) {
        return {.in_short = "the writer dies",
                .drops = true,
                .dropped = record.connection,
                .ending = Ending::WRITER_DIED};
    }
    if (error == EINTR) {
        return {};
    }
    // Nothing more can be sent to it, so the replies after this one are lost as well.
    const std::uint32_t sent = record.call_of_thread - 1;
    DocumentedOutcome expected = control_client_closes(sent);
    expect_unsent(expected, "Broken pipe", CONTROL_REQUESTS - sent);
    return expected;
}

DocumentedOutcome after_accept4(const FaultWatch& watch, int error) {
    if (error == EINVAL && watch.came_through("comm_socket_v4_idle")) {
        return {.in_short = "the control socket is given up", .control_socket_lost = true};
    }
    return {};
}

DocumentedOutcome after_setsockopt(const FaultWatch& watch) {
    if (!watch.came_through("open_listener")) {
        return {};
    }
    const std::string option = watch.page().first.call_of_thread == 1 ? "SO_REUSEADDR" : "SO_REUSEPORT";
    return {.in_short = "a warning", .texts = {{"WARNING: IPTV out cannot set " + option, ONCE}}};
}

DocumentedOutcome after_pthread_create(const FaultRecord& record) {
    return {.in_short = "a warning, dropped on the same pass",
            .drops = true,
            .dropped = (record.call_of_thread - 1) / 2,
            .ending = Ending::DROPPED_BY_SERVER,
            .texts = {{"WARNING: Failure to create thread", ONCE}}};
}

DocumentedOutcome after_pthread_cancel(bool of_reader) {
    const char* const text =
        of_reader ? "WARNING: Failure to cancel thread" : "WARNING: Failure to cancel thread2";
    return {.in_short = "a warning", .texts = {{text, ONCE}}};
}

DocumentedOutcome after_pthread_join(const FaultWatch& watch, bool of_reader) {
    if (watch.came_through("RTMPConnection::reap_dead_threads")) {
        // The text is printed again.
        return {.in_short = "joined on the next pass",
                .texts = {{of_reader ? "Thread 1 died" : "Thread 2 died", ONCE}}};
    }
    const char* const text =
        of_reader ? "WARNING: Failure to pthread_join" : "WARNING: Failure to pthread_join2";
    return {.in_short = "a warning", .texts = {{text, ONCE}}};
}

bool is_repeated_header(const FaultWatch& watch) {
    return watch.came_through("deliver_sequence_header") || watch.came_through("repeat_header");
}

DocumentedOutcome after_lock_of_main(const FaultWatch& watch, std::size_t connection) {
    if (watch.came_through("RTMPConnection::ok")) {
        return {.in_short = "Lock fail, dropped",
                .drops = true,
                .dropped = connection,
                .texts = {{"Lock fail", ONCE}}};
    }
    if (is_repeated_header(watch)) {
        return {
            .in_short = "a repeated header is missed", .missing = Missing::A_HEADER, .misses = connection};
    }
    if (watch.came_through("RTMPConnection::relay_from_publisher")) {
        return {.in_short = "Relay fail, a message is missed",
                .missing = Missing::ONE_MESSAGE,
                .misses = connection,
                .texts = {{"Relay fail", ONCE}}};
    }
    if (watch.came_through("forward_metadata_to_players")) {
        return {.in_short = "metadata is missed", .missing = Missing::METADATA, .misses = connection};
    }
    if (watch.came_through("connection_line")) {
        return {.in_short = "listed without what the lock guards", .listed_without_lock = connection};
    }
    if (watch.came_through("RTMPConnection::idle")) {
        return {.in_short = "tried again on the next pass"};
    }
    return unknown_caller(watch);
}

DocumentedOutcome after_mutex_lock(const FaultWatch& watch) {
    const FaultRecord& record = watch.page().first;
    switch (record.thread) {
        case FaultThread::MAIN:
            return after_lock_of_main(watch, record.connection);
        case FaultThread::READER:
            return watch.came_through("RTMPConnection::add_to_incoming_queue")
                       ? reader_dies(record, {"Failure to add to queue"})
                       : reader_dies(record);
        case FaultThread::WRITER:
            break;
    }
    return {.in_short = "the writer tries again"};
}

DocumentedOutcome after_mutex_unlock(const FaultWatch& watch) {
    struct Site {
        const char* caller;
        const char* named;
        bool other;  // not the connection of the thread or the pass
    };
    // The more specific sites come first.
    for (const Site& site :
         {Site{"RTMPConnection::ok", "ok", false},
          Site{"RTMPConnection::relay_from_publisher", "queue_outgoing", false},
          Site{"forward_metadata_to_players", "forward_metadata_to_players", true},
          Site{"connection_line", "connection_line", true}, Site{"queue_outgoing", "queue_outgoing", false},
          Site{"take_outgoing", "take_outgoing", false},
          Site{"RTMPConnection::add_to_incoming_queue", "add_to_incoming_queue", false},
          Site{"queue_acknowledgement", "queue_acknowledgement", false},
          Site{"wait_for_room_in_incoming_queue", "look_at_incoming_queue", false},
          Site{"RTMPConnection::idle", "dispatch_front_message", false}}) {
        if (watch.came_through(site.caller)) {
            return process_ends(
                assertion(site.named, site.other ? "p->connection_io_unlock()" : "connection_io_unlock()"));
        }
    }
    return unknown_caller(watch);
}

DocumentedOutcome after_nothrow_new_on_main(const FaultWatch& watch) {
    if (watch.came_through("queue_reply")) {
        // Messages that arrived together with the command are still handled and answered.
        return {.in_short = "AMF0 error command, dropped",
                .drops = true,
                .missing = Missing::REPLY_BEFORE_DROP,
                .texts = {{"AMF0 error command", ONCE}}};
    }
    if (watch.came_through("send_metadata") || watch.came_through("handle_play") ||
        watch.came_through("forward_metadata_to_players")) {
        return {.in_short = "metadata is missed", .missing = Missing::METADATA};
    }
    if (watch.came_through("handle_data_message")) {
        return {.in_short = "metadata is not kept", .missing = Missing::METADATA_OF_A_STREAM};
    }
    if (is_repeated_header(watch)) {
        return {
            .in_short = "a repeated header is missed", .missing = Missing::A_HEADER, .misses = LATE_PLAYER};
    }
    if (watch.came_through("SharedPayload::lay_out")) {
        // The first stream has two players once the late one has joined.
        return {.in_short = "Relay fail, all players of the stream miss a message",
                .missing = Missing::ONE_MESSAGE,
                .most_who_miss = 2,
                .texts = {{"Relay fail", {1, 2}}}};
    }
    if (watch.came_through("relay_published_packet")) {
        // For the second stream, no client would have received it.
        return {.in_short = "a header is not kept",
                .missing = Missing::A_HEADER_OR_NOTHING,
                .misses = LATE_PLAYER};
    }
    return unknown_caller(watch);
}

DocumentedOutcome after_nothrow_new(const FaultWatch& watch) {
    const FaultRecord& record = watch.page().first;
    if (record.thread == FaultThread::MAIN) {
        return after_nothrow_new_on_main(watch);
    }
    if (watch.came_through("RTMPConnection::rtmp_read_packet")) {
        return reader_dies(record, {"Failed to alloc pkt data"});
    }
    if (watch.came_through("queue_acknowledgement")) {
        return {.in_short = "an acknowledgement is missed", .misses_acknowledgement = record.connection};
    }
    return {.in_short = "the chunk size is not echoed",
            .missing = Missing::CHUNK_SIZE,
            .misses = record.connection};
}

DocumentedOutcome after_new(const FaultWatch& watch) {
    struct Site {
        const char* caller;
        const char* named;
        const char* expression;
    };
    for (const Site& site :
         {Site{"comm_socket_v4_packet_create", "answer", "respkt != NULL"},
          Site{"comm_socket_v4_packet_begin_writing", "begin_reply",
               "comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0"},
          Site{"comm_socket_v4_packet_write_nv_pair_shared", "write_shared_pair",
               "comm_socket_v4_packet_write_nv_pair_shared(respkt, name, before, shared, after) == 0"},
          Site{"comm_socket::write_pair", "write_pair",
               "comm_socket_v4_packet_write_nv_pair(respkt, name, value) == 0"}}) {
        if (watch.came_through(site.caller)) {
            return process_ends(assertion(site.named, site.expression));
        }
    }
    const std::uint32_t answers_sent = watch.page().first.sendmsg_calls;
    if (watch.came_through("comm_socket_v4_packet_send_to_client")) {
        DocumentedOutcome expected{.in_short = "that control client misses an answer",
                                   .control_answer_lost = answers_sent + 1};
        expect_unsent(expected, "Cannot allocate memory", 1);
        return expected;
    }
    if (watch.came_through("comm_socket_v4_idle") || watch.came_through("comm_socket_v4_server_get_packet")) {
        return control_client_closes(answers_sent);
    }
    // The runtime writes its line in pieces, and other threads may print in between. The first piece
    // is complete.
    return {.in_short = "ends: terminate called after throwing an instance of 'std::bad_alloc'",
            .last_words = "terminate called after throwing an instance of '"};
}

}  // namespace

DocumentedOutcome documented_outcome(const FaultPlan& plan, const FaultWatch& watch) {
    const FaultRecord& first = watch.page().first;
    const bool of_reader = first.target_thread == FaultThread::READER;
    if (watch.page().injected == 0) {
        return {.in_short = "not reached"};
    }
    if (plan.error == SHORT_TRANSFER) {
        return {};
    }
    switch (plan.call) {
        case FaultCall::ACCEPT4:
            return after_accept4(watch, plan.error);
        case FaultCall::SETSOCKOPT:
            return after_setsockopt(watch);
        case FaultCall::RECV:
            return after_recv(watch, plan.error);
        case FaultCall::SEND:
            return after_send(first);
        case FaultCall::SENDMSG:
            return after_sendmsg(first, plan.error);
        case FaultCall::PTHREAD_CREATE:
            return after_pthread_create(first);
        case FaultCall::PTHREAD_CANCEL:
            return after_pthread_cancel(of_reader);
        case FaultCall::PTHREAD_JOIN:
            return after_pthread_join(watch, of_reader);
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
            break;  // Without these calls there is no session.
    }
    return process_ends("no session without this call");
}

#include "tests/fault/documented_outcome.h"

#include <algorithm>
#include <vector>

namespace {

constexpr Times ONCE{1, 1};

std::string assertion(const std::string& function, const std::string& expression) {
    return "v9_rtmp_server: " + function + ": Assertion '" + expression + "' failed.";
}

DocumentedOutcome nothing_changes() {
    return {};
}

DocumentedOutcome reader_dies(const FaultRecord& record, const std::vector<std::string>& texts = {}) {
    DocumentedOutcome expected;
    expected.in_short = "the reader dies, " + (texts.empty() ? "in silence" : texts.front());
    expected.drops = true;
    expected.dropped = record.connection;
    expected.ending = Ending::READER_DIED;
    for (const std::string& text : texts) {
        expected.texts[text] = ONCE;
    }
    return expected;
}

DocumentedOutcome process_ends(const std::string& last_line) {
    DocumentedOutcome expected;
    expected.in_short = "ends: " + last_line;
    expected.last_words = last_line + "\n";
    return expected;
}

// The three requests arrive together. The replies are sent one by one, each in one call, before the socket is
// read again. The client waits for two of them.
constexpr std::uint32_t CONTROL_REQUESTS = 3;
constexpr std::uint32_t CONTROL_ANSWERS_AWAITED = 2;

DocumentedOutcome control_client_closes(std::uint32_t answers_sent) {
    DocumentedOutcome expected;
    expected.control_client_lost = answers_sent < CONTROL_ANSWERS_AWAITED;
    expected.in_short = expected.control_client_lost ? "that control client is closed"
                                                     : "that control client is closed, after its answers";
    return expected;
}

void expect_unsent(DocumentedOutcome& expected, const std::string& reason, std::uint32_t answers) {
    const int times = static_cast<int>(answers);
    expected.texts["Unable to send packet: " + reason] = {times, times};
}

// ---- by kind of call

DocumentedOutcome after_recv(const FaultWatch& watch, const std::string& action) {
    const FaultRecord& record = watch.first();
    DocumentedOutcome expected;
    if (action == "short") {
        return expected;
    }
    if (record.thread == FaultThread::MAIN) {
        if (action != "EINTR") {
            const std::uint32_t sent = std::min(record.sendmsg_calls, CONTROL_REQUESTS);
            expected = control_client_closes(sent);
            // Requests that arrived earlier are still carried out, but cannot be answered.
            expect_unsent(expected, "Input/output error",
                          record.received_bytes != 0 ? CONTROL_REQUESTS - sent : 0);
        }
        return expected;
    }
    if (!watch.came_through("RTMPConnection::handshake")) {
        return reader_dies(record);
    }
    // C0 and C1 arrive together, so each part takes one call.
    const std::string part = "C" + std::to_string(record.call_of_thread - 1) + " fail";
    return reader_dies(record, {part, "RTMP handshake failed"});
}

DocumentedOutcome after_send(const FaultWatch& watch, const std::string& action) {
    if (action == "short") {
        return nothing_changes();
    }
    const std::string part = "S" + std::to_string(watch.first().call_of_thread - 1) + " fail";
    return reader_dies(watch.first(), {part, "RTMP handshake failed"});
}

DocumentedOutcome after_sendmsg(const FaultWatch& watch, const std::string& action) {
    const FaultRecord& record = watch.first();
    DocumentedOutcome expected;
    if (action == "short") {
        return expected;
    }
    if (record.thread == FaultThread::WRITER) {
        expected.in_short = "the writer dies";
        expected.drops = true;
        expected.dropped = record.connection;
        expected.ending = Ending::WRITER_DIED;
        return expected;
    }
    if (action != "EINTR") {
        // Nothing more can be sent to it, so the replies after this one are lost as well.
        const std::uint32_t sent = record.call_of_thread - 1;
        expected = control_client_closes(sent);
        expect_unsent(expected, "Broken pipe", CONTROL_REQUESTS - sent);
    }
    return expected;
}

DocumentedOutcome after_accept4(const FaultWatch& watch, const std::string& action) {
    DocumentedOutcome expected;
    if (watch.first().on_control_socket != 0 && action == "EINVAL") {
        expected.in_short = "the control socket is given up";
        expected.control_socket_lost = true;
    }
    return expected;
}

DocumentedOutcome after_setsockopt(const FaultWatch& watch) {
    DocumentedOutcome expected;
    if (watch.came_through("open_listener")) {
        const std::string option = watch.first().call_of_thread == 1 ? "SO_REUSEADDR" : "SO_REUSEPORT";
        expected.in_short = "a warning";
        expected.texts["WARNING: IPTV out cannot set " + option] = ONCE;
    }
    return expected;
}

DocumentedOutcome after_pthread_create(const FaultWatch& /*watch*/, std::uint64_t thread_idx) {
    DocumentedOutcome expected;
    expected.in_short = "a warning, dropped on the same pass";
    expected.drops = true;
    expected.dropped = thread_idx / 2;
    expected.ending = Ending::DROPPED_BY_SERVER;
    expected.texts["WARNING: Failure to create thread"] = ONCE;
    return expected;
}

DocumentedOutcome after_pthread_cancel(const FaultWatch& watch) {
    DocumentedOutcome expected;
    expected.in_short = "a warning";
    expected
        .texts[watch.first().target_thread == FaultThread::READER ? "WARNING: Failure to cancel thread"
                                                                  : "WARNING: Failure to cancel thread2"] =
        ONCE;
    return expected;
}

DocumentedOutcome after_pthread_join(const FaultWatch& watch) {
    const bool is_reader = watch.first().target_thread == FaultThread::READER;
    DocumentedOutcome expected;
    if (watch.came_through("RTMPConnection::reap_dead_threads")) {
        expected.in_short = "joined on the next pass";
        expected.texts[is_reader ? "Thread 1 died" : "Thread 2 died"] = ONCE;  // printed again
        return expected;
    }
    expected.in_short = "a warning";
    expected.texts[is_reader ? "WARNING: Failure to pthread_join" : "WARNING: Failure to pthread_join2"] =
        ONCE;
    return expected;
}

bool is_repeated_header(const FaultWatch& watch) {
    return watch.came_through("deliver_sequence_header") || watch.came_through("repeat_header");
}

DocumentedOutcome after_lock_of_main(const FaultWatch& watch) {
    const FaultRecord& record = watch.first();
    DocumentedOutcome expected;
    if (watch.came_through("RTMPConnection::ok")) {
        expected.in_short = "Lock fail, dropped";
        expected.drops = true;
        expected.dropped = record.connection;
        expected.texts["Lock fail"] = ONCE;
    } else if (is_repeated_header(watch)) {
        expected.in_short = "a repeated header is missed";
        expected.missing = Missing::A_HEADER;
        expected.misses = record.connection;
    } else if (watch.came_through("RTMPConnection::relay_from_publisher")) {
        expected.in_short = "Relay fail, a message is missed";
        expected.missing = Missing::ONE_MESSAGE;
        expected.misses = record.connection;
        expected.texts["Relay fail"] = ONCE;
    } else if (watch.came_through("forward_metadata_to_players")) {
        expected.in_short = "metadata is missed";
        expected.missing = Missing::METADATA;
        expected.misses = record.connection;
    } else if (watch.came_through("connection_line")) {
        expected.in_short = "listed without what the lock guards";
        expected.listed_without_lock = record.connection;
    } else {
        expected.in_short = watch.came_through("RTMPConnection::idle") ? "tried again on the next pass"
                                                                       : "UNKNOWN CALLER " + watch.describe();
    }
    return expected;
}

DocumentedOutcome after_mutex_lock(const FaultWatch& watch) {
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
    DocumentedOutcome expected;
    expected.in_short = "the writer tries again";
    return expected;
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
    return process_ends("UNKNOWN CALLER " + watch.describe());
}

DocumentedOutcome after_nothrow_new_on_main(const FaultWatch& watch) {
    DocumentedOutcome expected;
    if (watch.came_through("queue_reply")) {
        // Messages that arrived together with the command are still handled and answered.
        expected.in_short = "AMF0 error command, dropped";
        expected.drops = true;
        expected.missing = Missing::REPLY_BEFORE_DROP;
        expected.texts["AMF0 error command"] = ONCE;
    } else if (watch.came_through("send_metadata") || watch.came_through("handle_play") ||
               watch.came_through("forward_metadata_to_players")) {
        expected.in_short = "metadata is missed";
        expected.missing = Missing::METADATA;
    } else if (watch.came_through("handle_data_message")) {
        expected.in_short = "metadata is not kept";
        expected.missing = Missing::METADATA_OF_A_STREAM;
    } else if (is_repeated_header(watch)) {
        expected.in_short = "a repeated header is missed";
        expected.missing = Missing::A_HEADER;
        expected.misses = LATE_PLAYER;
    } else if (watch.came_through("SharedPayload::lay_out")) {
        // The first stream has two players once the late one has joined.
        expected.in_short = "Relay fail, all players of the stream miss a message";
        expected.missing = Missing::ONE_MESSAGE;
        expected.most_who_miss = 2;
        expected.texts["Relay fail"] = {1, 2};
    } else if (watch.came_through("relay_published_packet")) {
        // For the second stream, no client would have received it.
        expected.in_short = "a header is not kept";
        expected.missing = Missing::A_HEADER_OR_NOTHING;
        expected.misses = LATE_PLAYER;
    } else {
        expected.in_short = "UNKNOWN CALLER " + watch.describe();
        expected.drops = true;
    }
    return expected;
}

DocumentedOutcome after_nothrow_new(const FaultWatch& watch) {
    const FaultRecord& record = watch.first();
    if (record.thread == FaultThread::MAIN) {
        return after_nothrow_new_on_main(watch);
    }
    if (watch.came_through("RTMPConnection::rtmp_read_packet")) {
        return reader_dies(record, {"Failed to alloc pkt data"});
    }
    DocumentedOutcome expected;
    if (watch.came_through("queue_acknowledgement")) {
        expected.in_short = "an acknowledgement is missed";
        expected.misses_acknowledgement = record.connection;
    } else {
        expected.in_short = "the chunk size is not echoed";
        expected.missing = Missing::CHUNK_SIZE;
        expected.misses = record.connection;
    }
    return expected;
}

DocumentedOutcome after_new(const FaultWatch& watch) {
    DocumentedOutcome expected;
    if (watch.came_through("comm_socket_v4_packet_create")) {
        return process_ends(assertion("answer", "respkt != NULL"));
    }
    if (watch.came_through("comm_socket_v4_packet_begin_writing")) {
        return process_ends(assertion(
            "begin_reply", "comm_socket_v4_packet_begin_writing(respkt, 0, command, message) == 0"));
    }
    if (watch.came_through("comm_socket_v4_packet_write_nv_pair_shared")) {
        return process_ends(assertion(
            "write_shared_pair",
            "comm_socket_v4_packet_write_nv_pair_shared(respkt, name, before, shared, after) == 0"));
    }
    if (watch.came_through("comm_socket::write_pair")) {
        return process_ends(
            assertion("write_pair", "comm_socket_v4_packet_write_nv_pair(respkt, name, value) == 0"));
    }
    if (watch.came_through("comm_socket_v4_packet_send_to_client")) {
        expected.in_short = "that control client misses an answer";
        expected.control_answer_lost = watch.first().sendmsg_calls + 1;
        expect_unsent(expected, "Cannot allocate memory", 1);
        return expected;
    }
    if (watch.came_through("comm_socket_v4_idle") || watch.came_through("comm_socket_v4_server_get_packet")) {
        return control_client_closes(watch.first().sendmsg_calls);
    }
    expected = process_ends("terminate called after throwing an instance of 'std::bad_alloc'");
    // The runtime writes its line in pieces, and other threads may print in between. The first piece
    // is complete.
    expected.last_words = "terminate called after throwing an instance of '";
    return expected;
}

DocumentedOutcome outcome_of(FaultCall call, const std::string& action, const FaultWatch& watch) {
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
            break;  // Without these calls there is no session.
    }
    return process_ends("no session without this call");
}

}  // namespace

DocumentedOutcome documented_outcome(FaultCall call, const std::string& action, const FaultWatch& watch) {
    if (watch.injected() == 0) {
        DocumentedOutcome expected;
        expected.in_short = "not reached";
        return expected;
    }
    return outcome_of(call, action, watch);
}

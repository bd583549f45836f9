// Repeats the scripted session, each time with another failing call: every call of a kind, from the first to
// the last in a session. Each failure must have the documented outcome and must not disturb other clients.
//
// A sweep distributes its runs over several processes, because a session mostly waits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/fault/documented_outcome.h"
#include "tests/fault/faulty_server.h"
#include "tests/fault/scripted_session.h"
#include "tests/fault/session_comparison.h"
#include "tests/support/program_process.h"

namespace {

constexpr std::uint64_t WORKERS = 8;
// The waiting test has a limit of 120 s.
constexpr Milliseconds SHARE_WAIT{115000};
constexpr const char* SHARE = "V9_FAULT_SHARE";  // for one worker: "first step last"
const std::string OUTCOME = "outcome: ";

// Sanitizer builds are three times as slow and test only one call in this many.
constexpr std::uint64_t STEP = TIME_SCALE == 1 ? 1 : 7;
constexpr std::uint64_t STEP_FOR_MEMORY = TIME_SCALE == 1 ? 1 : 3;

constexpr const char* OUT_OF_MEMORY = "ends: terminate called after throwing an instance of 'std::bad_alloc'";

struct SessionRun {
    std::string outcome;
    std::uint64_t calls;  // that the plan counts
};

// Plays the session and requires its documented outcome.
SessionRun run_session(const FaultPlan& plan) {
    FaultyServer faulty(plan);
    const SessionStory story = play_session(faulty.server);
    const DocumentedOutcome expected = documented_outcome(plan, faulty.watch);
    EXPECT_EQ(differences(expected, story, faulty.server.raw_text()), "")
        << "call " << plan.nth << ": " << expected.in_short << "\n"
        << faulty.watch.describe();
    return {expected.in_short, faulty.watch.page().seen};
}

// ---- a worker

// Ends at the first failure.
void run_share(FaultPlan plan, const std::string& share) {
    std::istringstream numbers(share);
    std::uint64_t step = 0;
    std::uint64_t last = 0;
    numbers >> plan.nth >> step >> last;
    for (; plan.nth <= last && !testing::Test::HasFailure(); plan.nth += step) {
        std::cout << "call " << plan.nth << std::endl;
        std::cout << '\n' << OUTCOME << run_session(plan).outcome << std::endl;
    }
}

// ---- the distributor

// Returns n if a later session may miss one in n of the counted calls. The number of repeated calls, such as
// polls, depends on how long a session takes. Threads that poll for work lock most often, and the machine may
// have been busier during the counted sessions than later. Whether the reader or the main thread allocates
// the next block of an output queue depends on which of them appends first.
int unreached_part(FaultCall call) {
    switch (call) {
        case FaultCall::ACCEPT4:
        case FaultCall::RECV:  // of the control socket's clients
        case FaultCall::NEW:
            return 25;
        case FaultCall::SENDMSG:  // takes all messages that wait by then
        case FaultCall::PTHREAD_MUTEX_LOCK:
        case FaultCall::PTHREAD_MUTEX_UNLOCK:
            return 5;
        default:
            return 0;
    }
}

// Returns the number of calls to test. If it depends on time, this is the number that every session
// should make.
std::uint64_t calls_of_a_session(FaultPlan plan) {
    constexpr int SESSIONS = 5;
    plan.nth = 0;
    std::uint64_t least = run_session(plan).calls;
    for (int i = 1; i < SESSIONS && unreached_part(plan.call) != 0; ++i) {
        least = std::min(least, run_session(plan).calls);
    }
    return least;
}

// Plays the calls 1, 1 + step, ... up to the last in workers of their own. Returns how often each outcome
// was required.
std::map<std::string, int> outcomes_of_all(std::uint64_t step, std::uint64_t last) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string only_this = std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
    std::deque<ProgramProcess> workers;
    for (std::uint64_t first = 1; first <= std::min(last, WORKERS * step); first += step) {
        std::ostringstream share;
        share << SHARE << '=' << first << ' ' << WORKERS * step << ' ' << last;
        workers.emplace_back(std::vector<std::string>{"/proc/self/exe", only_this},
                             ProgramOptions{.environment = {share.str()}});
    }
    std::map<std::string, int> outcomes;
    for (ProgramProcess& worker : workers) {
        EXPECT_EQ(worker.wait_for_exit(SHARE_WAIT), (ProgramEnd{0, 0}))
            << worker.out().raw_text() << worker.err().raw_text();
        for (const std::string& line : worker.out().lines_since()) {
            if (line.starts_with(OUTCOME)) {
                ++outcomes[line.substr(OUTCOME.size())];
            }
        }
    }
    return outcomes;
}

// Lets each call of the plan fail in a session of its own. Expects each of these outcomes in at least one of
// them, unless calls are skipped.
void run_sweep(const FaultPlan& plan, const std::vector<std::string>& must_be_among,
               std::uint64_t step = STEP) {
    if (const char* const share = std::getenv(SHARE)) {
        run_share(plan, share);
        return;
    }
    const std::uint64_t last = calls_of_a_session(plan);
    ASSERT_GT(last, 0U);
    std::map<std::string, int> outcomes = outcomes_of_all(step, last);
    int runs = 0;
    for (const auto& [outcome, times] : outcomes) {
        runs += times;
        std::cout << "    " << times << " x " << outcome << '\n';
    }
    std::cout << "    " << runs << " runs for " << last << " calls\n";
    EXPECT_EQ(static_cast<std::uint64_t>(runs), (last + step - 1) / step);
    const int part = unreached_part(plan.call);
    EXPECT_LE(outcomes["not reached"], part != 0 ? 1 + runs / part : 0);
    for (const std::string& outcome : must_be_among) {
        EXPECT_TRUE(outcomes[outcome] > 0 || step > 1) << outcome;
    }
}

}  // namespace

TEST(every_call, a_session_in_which_nothing_fails_is_complete) {
    EXPECT_EQ(run_session({}).outcome, "not reached");
}

TEST(every_call, of_accept4_may_fail_for_lack_of_descriptors) {
    run_sweep({.call = FaultCall::ACCEPT4, .error = EMFILE}, {"nothing changes"});
}

TEST(every_call, of_accept4_for_the_control_socket_may_fail_for_good) {
    run_sweep({.call = FaultCall::ACCEPT4,
               .error = EINVAL,
               .within = ServerSymbols::get().within("comm_socket_v4_idle")},
              {"the control socket is given up"});
}

TEST(every_call, of_setsockopt_may_fail) {
    run_sweep({.call = FaultCall::SETSOCKOPT, .error = ENOPROTOOPT}, {"nothing changes", "a warning"}, 1);
}

TEST(every_call, of_recv_may_fail) {
    run_sweep({.call = FaultCall::RECV, .error = EIO},
              {"the reader dies, C0 fail", "the reader dies, C1 fail", "the reader dies, C2 fail",
               "the reader dies, in silence"});
}

// The number of calls by readers depends on time, and these calls come after them.
TEST(every_call, of_recv_from_a_control_client_may_fail) {
    run_sweep({.call = FaultCall::RECV, .error = EIO, .within = ServerSymbols::get().within("server_idle")},
              {"that control client is closed"}, 1);
}

TEST(every_call, of_recv_may_be_interrupted) {
    run_sweep({.call = FaultCall::RECV, .error = EINTR}, {"the reader dies, in silence"});
}

TEST(every_call, of_recv_may_return_a_single_byte) {
    run_sweep({.call = FaultCall::RECV, .error = SHORT_TRANSFER}, {"nothing changes"});
}

TEST(every_call, of_recv_and_all_later_ones_may_return_a_single_byte) {
    run_sweep({.call = FaultCall::RECV, .error = SHORT_TRANSFER, .all_later = true}, {"nothing changes"}, 16);
}

TEST(every_call, of_send_may_fail) {
    run_sweep({.call = FaultCall::SEND, .error = EPIPE},
              {"the reader dies, S0 fail", "the reader dies, S1 fail", "the reader dies, S2 fail"}, 1);
}

TEST(every_call, of_send_may_be_interrupted) {
    run_sweep({.call = FaultCall::SEND, .error = EINTR}, {"the reader dies, S2 fail"}, 1);
}

TEST(every_call, of_send_may_accept_a_single_byte) {
    run_sweep({.call = FaultCall::SEND, .error = SHORT_TRANSFER}, {"nothing changes"}, 1);
}

TEST(every_call, of_sendmsg_may_fail) {
    run_sweep({.call = FaultCall::SENDMSG, .error = EPIPE}, {"the writer dies"});
}

// Likewise, after the calls by writers.
TEST(every_call, of_sendmsg_to_a_control_client_may_fail) {
    run_sweep(
        {.call = FaultCall::SENDMSG, .error = EPIPE, .within = ServerSymbols::get().within("server_idle")},
        {"that control client is closed"}, 1);
}

TEST(every_call, of_sendmsg_may_be_interrupted) {
    run_sweep({.call = FaultCall::SENDMSG, .error = EINTR}, {"the writer dies"});
}

TEST(every_call, of_sendmsg_may_accept_a_single_byte) {
    run_sweep({.call = FaultCall::SENDMSG, .error = SHORT_TRANSFER}, {"nothing changes"});
}

TEST(every_call, of_sendmsg_and_all_later_ones_may_accept_a_single_byte) {
    run_sweep({.call = FaultCall::SENDMSG, .error = SHORT_TRANSFER, .all_later = true}, {"nothing changes"},
              16);
}

TEST(every_call, of_pthread_create_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_CREATE, .error = EAGAIN}, {"a warning, dropped on the same pass"},
              1);
}

TEST(every_call, of_pthread_cancel_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_CANCEL, .error = ESRCH}, {"a warning"}, 1);
}

TEST(every_call, of_pthread_join_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_JOIN, .error = ESRCH}, {"a warning", "joined on the next pass"}, 1);
}

TEST(every_call, of_pthread_mutex_lock_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_MUTEX_LOCK, .error = EINVAL},
              {"Lock fail, dropped", "tried again on the next pass", "the writer tries again",
               "the reader dies, Failure to add to queue", "the reader dies, in silence"});
}

TEST(every_call, of_pthread_mutex_unlock_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_MUTEX_UNLOCK, .error = EPERM}, {});
}

TEST(every_call, for_memory_may_be_refused_where_the_server_can_continue) {
    run_sweep({.call = FaultCall::NOTHROW_NEW, .error = ENOMEM},
              {"AMF0 error command, dropped", "the reader dies, Failed to alloc pkt data",
               "an acknowledgement is missed", "Relay fail, all players of the stream miss a message"},
              STEP_FOR_MEMORY);
}

// The order of the readers' allocations depends on time, so a sweep over all of them can miss these few.
TEST(every_call, for_memory_of_a_chunk_size_echo_may_be_refused) {
    run_sweep({.call = FaultCall::NOTHROW_NEW,
               .error = ENOMEM,
               .within = ServerSymbols::get().within("act_on_control_message")},
              {"the chunk size is not echoed"}, 1);
}

TEST(every_call, for_memory_in_the_control_server_may_be_refused) {
    run_sweep({.call = FaultCall::NEW, .error = ENOMEM, .within = ServerSymbols::get().within("server_idle")},
              {"that control client is closed", "that control client misses an answer",
               "ends: v9_rtmp_server: answer: Assertion 'respkt != NULL' failed."},
              STEP_FOR_MEMORY);
}

TEST(every_call, for_memory_that_a_message_must_have_ends_the_process_when_refused) {
    run_sweep({.call = FaultCall::NEW,
               .error = ENOMEM,
               .within = ServerSymbols::get().within("RTMPConnection::idle")},
              {OUT_OF_MEMORY});
}

TEST(every_call, for_memory_that_a_new_connection_must_have_ends_the_process_when_refused) {
    run_sweep({.call = FaultCall::NEW,
               .error = ENOMEM,
               .within = ServerSymbols::get().within("accept_connections")},
              {OUT_OF_MEMORY});
}

TEST(every_call, for_memory_that_a_reader_must_have_ends_the_process_when_refused) {
    run_sweep(
        {.call = FaultCall::NEW, .error = ENOMEM, .within = ServerSymbols::get().within("reader_thread")},
        {OUT_OF_MEMORY});
}

// Repeats the scripted session, each time with another failing call: every call of a kind, from the first to
// the last in a session. Each failure must have the documented outcome and must not disturb other clients.
//
// A sweep distributes its runs over several processes, because a session mostly waits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/fault/documented_outcome.h"
#include "tests/fault/faulty_server.h"
#include "tests/fault/scripted_session.h"
#include "tests/fault/session_comparison.h"
#include "tests/support/program_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr unsigned WORKERS = 8;
constexpr int FAILURES_SHOWN = 3;
// The waiting test has a limit of 120 s.
constexpr Milliseconds SHARE_WAIT{115000};
constexpr const char* SHARE = "V9_FAULT_SHARE";  // for one worker: "first step last"
constexpr const char* TALLY = "tally: ";

// Sanitizer builds are three times as slow and test only one call in this many.
constexpr std::uint64_t STEP = TIME_SCALE == 1 ? 1 : 7;

constexpr const char* OUT_OF_MEMORY = "ends: terminate called after throwing an instance of 'std::bad_alloc'";

struct Sweep {
    FaultCall call;
    std::string action;
    std::string within = {};  // "@FROM-TO", or empty
    std::uint64_t step = STEP;
    bool all_later = false;  // all calls from the nth on fail
};

std::string plan_of(const Sweep& sweep, std::uint64_t nth) {
    return std::string(FAULT_CALL_NAMES[static_cast<std::size_t>(sweep.call)]) + sweep.within + ":" +
           std::to_string(nth) + (sweep.all_later ? "+" : "") + ":" + sweep.action;
}

struct SessionRun {
    std::string outcome;  // required outcome
    std::string problem;  // difference from it
    std::string told;     // details for the failure message
};

SessionRun run_session(const Sweep& sweep, const std::string& plan) {
    SessionRun run;
    FaultyServer faulty(plan);
    const SessionStory story = play_session(faulty.server);
    const DocumentedOutcome expected = documented_outcome(sweep.call, sweep.action, faulty.watch);
    run.outcome = expected.in_short;
    run.problem = differences(expected, story, faulty.server.raw_text());
    if (!run.problem.empty()) {
        run.told = faulty.watch.describe() + "\n" + faulty.server.raw_text();
    }
    return run;
}

// ---- a worker

void run_share(const Sweep& sweep, const std::string& share) {
    std::istringstream numbers(share);
    std::uint64_t nth = 0;
    std::uint64_t step = 0;
    std::uint64_t last = 0;
    numbers >> nth >> step >> last;
    std::map<std::string, int> outcomes;
    int failures = 0;
    for (; nth <= last && failures < FAILURES_SHOWN; nth += step) {
        const std::string plan = plan_of(sweep, nth);
        try {
            const SessionRun run = run_session(sweep, plan);
            ++outcomes[run.outcome];
            if (!run.problem.empty()) {
                ++failures;
                ADD_FAILURE() << plan << ": " << run.outcome << "\n" << run.problem << run.told;
            }
        } catch (const TestFailure& failure) {
            ++failures;
            ADD_FAILURE() << plan << ": " << failure.what();
        }
    }
    for (const auto& [outcome, times] : outcomes) {
        std::cout << '\n' << TALLY << times << ' ' << outcome << std::endl;
    }
}

// ---- the distributor

std::string own_path() {
    std::string path(4096, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    path.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return path;
}

class Worker {
  public:
    explicit Worker(const std::string& share)
        : process({own_path(), "--gtest_filter=" + own_name()},
                  {.environment = {std::string(SHARE) + "=" + share}}) {}

    // Waits for the worker's end and adds its outcomes.
    void finish(std::map<std::string, int>& outcomes) {
        const ProgramEnd end = process.wait_for_exit(SHARE_WAIT);
        for (const std::string& line : process.out().lines_since()) {
            if (!line.starts_with(TALLY)) {
                continue;
            }
            std::istringstream fields(line.substr(std::string(TALLY).size()));
            int times = 0;
            std::string outcome;
            fields >> times;
            std::getline(fields >> std::ws, outcome);
            outcomes[outcome] += times;
        }
        if (end != ProgramEnd{0, 0}) {
            ADD_FAILURE() << process.out().raw_text() << process.err().raw_text();
        }
    }

  private:
    static std::string own_name() {
        const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
        return std::string(test->test_suite_name()) + "." + test->name();
    }

    ProgramProcess process;
};

// Returns n if a later session may miss one in n of the counted calls. The number of repeated calls, such as
// polls, depends on how long a session takes. Threads that poll for work lock most often, and the machine may
// have been busier during the counted sessions than later.
int unreached_part(const Sweep& sweep) {
    switch (sweep.call) {
        case FaultCall::ACCEPT4:
        case FaultCall::RECV:  // of the control socket's clients
            return 25;
        case FaultCall::SENDMSG:  // takes all messages that wait by then
        case FaultCall::PTHREAD_MUTEX_LOCK:
        case FaultCall::PTHREAD_MUTEX_UNLOCK:
            return 5;
        default:
            return 0;
    }
}

bool depends_on_time(const Sweep& sweep) {
    return unreached_part(sweep) != 0;
}

// Returns the number of calls of this kind in a session without failures.
std::uint64_t calls_of_one_session(const Sweep& sweep) {
    // Calls within one function are counted by the injector with a plan that lets them all pass.
    constexpr std::uint64_t NEVER = 1000000000;
    FaultyServer faulty(sweep.within.empty() ? "" : plan_of(sweep, NEVER));
    const SessionStory story = play_session(faulty.server);
    const DocumentedOutcome expected = documented_outcome(sweep.call, sweep.action, faulty.watch);
    const std::string problem = differences(expected, story, faulty.server.raw_text());
    if (!problem.empty()) {
        throw TestFailure("without any fault: " + problem + faulty.server.raw_text());
    }
    return sweep.within.empty() ? faulty.watch.calls(sweep.call) : faulty.watch.seen();
}

// Returns the number of calls to test. If it depends on time, this is the number that every session
// should make.
std::uint64_t calls_of_a_session(const Sweep& sweep) {
    constexpr int SESSIONS = 5;
    std::uint64_t least = calls_of_one_session(sweep);
    for (int i = 1; i < SESSIONS && depends_on_time(sweep); ++i) {
        least = std::min(least, calls_of_one_session(sweep));
    }
    return least;
}

// Expects each of these outcomes in at least one run, unless calls are skipped.
void run_sweep(const Sweep& sweep, const std::vector<std::string>& must_be_among) {
    if (const char* const share = std::getenv(SHARE)) {
        run_share(sweep, share);
        return;
    }
    const std::uint64_t last = calls_of_a_session(sweep);
    ASSERT_GT(last, 0U);
    const std::uint64_t workers = std::min<std::uint64_t>(WORKERS, (last + sweep.step - 1) / sweep.step);
    std::deque<Worker> team;
    for (std::uint64_t i = 0; i < workers; ++i) {
        team.emplace_back(std::to_string(1 + i * sweep.step) + " " + std::to_string(workers * sweep.step) +
                          " " + std::to_string(last));
    }
    std::map<std::string, int> outcomes;
    for (Worker& worker : team) {
        worker.finish(outcomes);
    }
    int runs = 0;
    for (const auto& [outcome, times] : outcomes) {
        runs += times;
        std::cout << "    " << times << " x " << outcome << '\n';
    }
    std::cout << "    " << runs << " runs for " << last << " calls\n";
    EXPECT_EQ(static_cast<std::uint64_t>(runs), (last + sweep.step - 1) / sweep.step);
    EXPECT_LE(outcomes["not reached"], depends_on_time(sweep) ? 1 + runs / unreached_part(sweep) : 0);
    for (const std::string& outcome : must_be_among) {
        EXPECT_TRUE(outcomes[outcome] > 0 || sweep.step > 1) << outcome;
    }
}

}  // namespace

TEST(every_call, a_session_in_which_nothing_fails_is_whole) {
    const SessionRun run = run_session({.call = FaultCall::RECV, .action = "EIO"}, "");
    EXPECT_EQ(run.outcome, "not reached");
    EXPECT_EQ(run.problem, "") << run.told;
    FaultyServer faulty("");
    EXPECT_EQ(faulty.watch.calls(FaultCall::SOCKET), 2U);
    EXPECT_EQ(faulty.watch.calls(FaultCall::BIND), 2U);
    EXPECT_EQ(faulty.watch.calls(FaultCall::LISTEN), 2U);
}

TEST(every_call, of_accept4_may_find_descriptors_short) {
    run_sweep({.call = FaultCall::ACCEPT4, .action = "EMFILE"}, {"nothing changes"});
}

TEST(every_call, of_accept4_for_the_control_socket_may_fail_for_good) {
    run_sweep({.call = FaultCall::ACCEPT4,
               .action = "EINVAL",
               .within = ServerSymbols::get().within("comm_socket_v4_idle")},
              {"the control socket is given up"});
}

TEST(every_call, of_setsockopt_may_fail) {
    run_sweep({.call = FaultCall::SETSOCKOPT, .action = "ENOPROTOOPT", .step = 1},
              {"nothing changes", "a warning"});
}

TEST(every_call, of_recv_may_fail) {
    run_sweep({.call = FaultCall::RECV, .action = "EIO"},
              {"the reader dies, C0 fail", "the reader dies, C1 fail", "the reader dies, C2 fail",
               "the reader dies, in silence", "that control client is closed"});
}

TEST(every_call, of_recv_may_be_interrupted) {
    run_sweep({.call = FaultCall::RECV, .action = "EINTR"}, {"the reader dies, in silence"});
}

TEST(every_call, of_recv_may_bring_a_single_byte) {
    run_sweep({.call = FaultCall::RECV, .action = "short"}, {"nothing changes"});
}

TEST(every_call, of_recv_and_all_later_ones_may_bring_a_single_byte) {
    run_sweep({.call = FaultCall::RECV, .action = "short", .step = 16, .all_later = true},
              {"nothing changes"});
}

TEST(every_call, of_send_may_fail) {
    run_sweep({.call = FaultCall::SEND, .action = "EPIPE", .step = 1},
              {"the reader dies, S0 fail", "the reader dies, S1 fail", "the reader dies, S2 fail"});
}

TEST(every_call, of_send_may_be_interrupted) {
    run_sweep({.call = FaultCall::SEND, .action = "EINTR", .step = 1}, {"the reader dies, S2 fail"});
}

TEST(every_call, of_send_may_take_a_single_byte) {
    run_sweep({.call = FaultCall::SEND, .action = "short", .step = 1}, {"nothing changes"});
}

TEST(every_call, of_sendmsg_may_fail) {
    run_sweep({.call = FaultCall::SENDMSG, .action = "EPIPE"}, {"the writer dies"});
}

// The number of calls by writers depends on time, and these calls come after them.
TEST(every_call, of_sendmsg_to_a_control_client_may_fail) {
    run_sweep({.call = FaultCall::SENDMSG,
               .action = "EPIPE",
               .within = ServerSymbols::get().within("server_idle"),
               .step = 1},
              {"that control client is closed"});
}

TEST(every_call, of_sendmsg_may_be_interrupted) {
    run_sweep({.call = FaultCall::SENDMSG, .action = "EINTR"}, {"the writer dies"});
}

TEST(every_call, of_sendmsg_may_take_a_single_byte) {
    run_sweep({.call = FaultCall::SENDMSG, .action = "short"}, {"nothing changes"});
}

TEST(every_call, of_sendmsg_and_all_later_ones_may_take_a_single_byte) {
    run_sweep({.call = FaultCall::SENDMSG, .action = "short", .step = 16, .all_later = true},
              {"nothing changes"});
}

TEST(every_call, of_pthread_create_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_CREATE, .action = "EAGAIN", .step = 1},
              {"a warning, dropped on the same pass"});
}

TEST(every_call, of_pthread_cancel_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_CANCEL, .action = "ESRCH", .step = 1}, {"a warning"});
}

TEST(every_call, of_pthread_join_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_JOIN, .action = "ESRCH", .step = 1},
              {"a warning", "joined on the next pass"});
}

TEST(every_call, of_pthread_mutex_lock_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_MUTEX_LOCK, .action = "EINVAL"},
              {"Lock fail, dropped", "tried again on the next pass", "the writer tries again",
               "the reader dies, Failure to add to queue", "the reader dies, in silence"});
}

TEST(every_call, of_pthread_mutex_unlock_may_fail) {
    run_sweep({.call = FaultCall::PTHREAD_MUTEX_UNLOCK, .action = "EPERM"}, {});
}

TEST(every_call, for_memory_that_may_be_refused_may_be_refused) {
    run_sweep({.call = FaultCall::NOTHROW_NEW, .action = "ENOMEM", .step = TIME_SCALE == 1 ? 1 : 3},
              {"AMF0 error command, dropped", "the reader dies, Failed to alloc pkt data",
               "an acknowledgement is missed", "the chunk size is not echoed",
               "Relay fail, all players of the stream miss a message"});
}

TEST(every_call, for_memory_in_the_control_server_may_be_refused) {
    run_sweep({.call = FaultCall::NEW,
               .action = "ENOMEM",
               .within = ServerSymbols::get().within("server_idle"),
               .step = TIME_SCALE == 1 ? 1 : 3},
              {"that control client is closed", "that control client misses an answer",
               "ends: v9_rtmp_server: answer: Assertion 'respkt != NULL' failed."});
}

TEST(every_call, for_memory_that_a_message_must_have_ends_the_process_when_refused) {
    run_sweep({.call = FaultCall::NEW,
               .action = "ENOMEM",
               .within = ServerSymbols::get().within("RTMPConnection::idle")},
              {OUT_OF_MEMORY});
}

TEST(every_call, for_memory_that_a_new_connection_must_have_ends_the_process_when_refused) {
    run_sweep({.call = FaultCall::NEW,
               .action = "ENOMEM",
               .within = ServerSymbols::get().within("accept_connections")},
              {OUT_OF_MEMORY});
}

TEST(every_call, for_memory_that_a_reader_must_have_ends_the_process_when_refused) {
    run_sweep(
        {.call = FaultCall::NEW, .action = "ENOMEM", .within = ServerSymbols::get().within("reader_thread")},
        {OUT_OF_MEMORY});
}

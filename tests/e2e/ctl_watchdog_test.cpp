// v9_rtmp_ctl watchdog against the real server: which clients it drops, and which it does not. Its limits are
// options, and the tests set short ones in the same proportions as the defaults.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/background.h"
#include "tests/support/far_side.h"
#include "tests/support/live_pair.h"
#include "tests/support/long_names.h"
#include "tests/support/media_bytes.h"
#include "tests/support/message_recorder.h"
#include "tests/support/program_process.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/tool_run.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

using Words = std::vector<std::string>;

const std::string STATE = "/run/watchdog";

// A tenth of the default limits.
const Words TENTH = {"--stalled",   "3",   "--behind",   "1.5", "--unnamed", "2",   "--silent", "3",
                     "--contested", "1.5", "--interval", "0.1", "--settle",  "0.5", "--age",    "off"};
const Words ALL_OFF = {"--stalled",   "off", "--behind",   "off", "--unnamed", "off", "--silent", "off",
                       "--contested", "off", "--interval", "0.1", "--settle",  "0.5", "--age",    "off"};

Words with(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::string read_text(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::string statistics() {
    return read_text(STATE + "/watchdog.json");
}

class Watchdog {
  public:
    // If starter is given, that program starts the watchdog.
    explicit Watchdog(const Words& options, const Words& starter = {})
        : program(with(starter, command(options))) {}

    // Waits for the line about the client with this address and returns it.
    std::string line_about(const std::string& address) const {
        std::string found;
        EXPECT_TRUE(holds_within(
            DEFAULT_WAIT,
            [&] {
                for (const std::string& line : program.out().lines_since()) {
                    found = line.find("from " + address + ": ") == std::string::npos ? found : line;
                }
                return !found.empty();
            },
            Milliseconds{10}))
            << "no line about " << address << " in:\n"
            << program.out().raw_text() << program.err().raw_text();
        return found;
    }
    std::string line_about(const RtmpClient& client) const { return line_about(client.local_address()); }

    Words lines() const { return program.out().lines_since(); }
    const CapturedOutput& err() const { return program.err(); }

    // Sends SIGTERM and requires a clean exit.
    void stop() {
        program.send_signal(SIGTERM);
        EXPECT_EQ(program.wait_for_exit(), (ProgramEnd{0, 0})) << program.err().raw_text();
    }

    void kill() {
        program.send_signal(SIGKILL);
        EXPECT_EQ(program.wait_for_exit().signal, SIGKILL);
    }

  private:
    static Words command(const Words& options) {
        return with({tool_path(), "watchdog", "--state", STATE}, options);
    }

    ProgramProcess program;
};

class watchdog : public testing::Test {
  protected:
    watchdog() { std::filesystem::remove_all(STATE); }
    ~watchdog() override { std::filesystem::remove_all(STATE); }
};

ClientOptions small_buffer() {
    ClientOptions options;
    options.receive_buffer_bytes = 2304;
    return options;
}

// 20 Mbit/s, so that the socket buffers of a client that does not read are full soon.
LiveOptions fast_stream() {
    return {.stream_name = "live", .interval = Milliseconds{40}, .message_bytes = 100000};
}

std::string dropped(const std::string& rule, const std::string& reason) {
    return ": " + rule + ": " + reason;
}

}  // namespace

TEST_F(watchdog, a_player_that_never_reads_is_dropped_and_the_others_are_not_affected) {
    ServerProcess server;
    LivePair live(fast_stream());
    RtmpClient stuck = playing_client("live", small_buffer());
    Watchdog dog(with(ALL_OFF, {"--stalled", "2"}));
    EXPECT_THAT(
        dog.line_about(stuck),
        EndsWith(dropped("stalled",
                         "it has received nothing for 2 s while other players of the stream received data")));
    server.wait_for_line("Connection for play unsubscribed from 'live'");
    live.wait_for_more(10);
    live.finish();
    EXPECT_THAT(dog.lines(), SizeIs(1));
    dog.stop();
    EXPECT_EQ(dog.err().raw_text(), "");
}

TEST_F(watchdog, a_lone_player_that_stops_reading_is_dropped) {
    ServerProcess server;
    RtmpClient paused = playing_client("cam1", small_buffer());
    RtmpClient publisher = publishing_client("cam1");
    publisher.set_chunk_size(1 << 16);
    std::uint32_t message = 0;
    const auto send_one = [&] {
        publisher.send_video(1000 + message * 40, avc_inter_frame(message, 100000));
        ++message;
        std::this_thread::sleep_for(Milliseconds{40});
    };
    for (int i = 0; i < 10; ++i) {
        send_one();
        (void)paused.expect_message(MSG_VIDEO);
    }
    Background sending(send_one);
    Watchdog dog(with(ALL_OFF, {"--stalled", "2"}));
    EXPECT_THAT(
        dog.line_about(paused),
        EndsWith(dropped("stalled", "it has received nothing for 2 s while the publisher kept sending")));
    sending.stop();
    EXPECT_EQ(sending.failure(), "");
}

TEST_F(watchdog, a_player_that_reads_too_slowly_is_dropped_beside_others_and_alone) {
    ServerProcess server;
    LivePair live(fast_stream());
    RtmpClient beside = playing_client("live", small_buffer());
    RtmpClient alone = playing_client("other", small_buffer());
    RtmpClient publisher = publishing_client("other");
    publisher.set_chunk_size(1 << 16);
    std::uint32_t message = 0;
    Background sending([&] {
        publisher.send_video(1000 + message * 40, avc_inter_frame(message, 100000));
        ++message;
        std::this_thread::sleep_for(Milliseconds{40});
    });
    // Reads 1 KB/s for each client. A dropped client is sent no more, and reading ends.
    const auto trickle = [](RtmpClient& client) {
        if (!client.closed_by_server()) {
            try {
                (void)client.read_bytes(100, Milliseconds{100});
            } catch (const std::exception&) {
                return;
            }
        }
        std::this_thread::sleep_for(Milliseconds{50});
    };
    Background reading([&] {
        trickle(beside);
        trickle(alone);
    });
    Watchdog dog(with(ALL_OFF, {"--behind", "2"}));
    EXPECT_THAT(dog.line_about(beside),
                EndsWith(dropped("behind", "it is more than 2 s behind other players of the stream")));
    EXPECT_THAT(dog.line_about(alone),
                EndsWith(dropped("behind", "it is more than 2 s behind its publisher")));
    reading.stop();
    sending.stop();
    live.finish();
}

TEST_F(watchdog, a_player_that_vanished_frees_its_slot_long_before_the_kernel_gives_up) {
    FarSide far;
    ServerProcess server;
    LivePair live(fast_stream());
    const RtmpClient vanished = far.player("live");
    Watchdog dog(with(ALL_OFF, {"--stalled", "2"}));
    far.cut_link();
    EXPECT_THAT(dog.line_about(vanished), HasSubstr(": stalled: "));
    server.wait_for_line("Connection for play unsubscribed from 'live'");
    live.finish();
}

TEST_F(watchdog, clients_without_a_stream_name_are_dropped) {
    ServerProcess server;
    const RtmpClient silent;
    const RtmpClient greeted = handshaken_client();
    const RtmpClient nameless = publishing_client("");
    const RtmpClient named = playing_client("cam1");
    Watchdog dog(with(ALL_OFF, {"--unnamed", "2"}));
    for (const RtmpClient* client : {&silent, &greeted, &nameless}) {
        const std::string line = dog.line_about(*client);
        EXPECT_THAT(line, StartsWith("dropped "));
        EXPECT_THAT(
            line, EndsWith(": unnamed: it has had no stream name for 2 s; such a drop is guarded only by the "
                           "id, not by a name (misses so far: 0)"));
    }
    server.wait_for_thread_count(THREADS_AT_REST + 2);
    EXPECT_THAT(dog.lines(), SizeIs(3));
}

TEST_F(watchdog, a_publisher_that_sends_nothing_is_dropped) {
    ServerProcess server;
    const RtmpClient silent = publishing_client("cam1");
    LivePair live;
    Watchdog dog(with(ALL_OFF, {"--silent", "2"}));
    EXPECT_THAT(dog.line_about(silent), EndsWith(dropped("silent", "it has sent nothing for 2 s")));
    EXPECT_THAT(dog.lines(), SizeIs(1));
    live.finish();
}

TEST_F(watchdog,
       of_a_frozen_publisher_with_a_waiting_rival_and_twenty_players_only_the_publisher_is_dropped) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> players;
    std::vector<std::unique_ptr<MessageRecorder>> readers;
    for (int i = 0; i < 20; ++i) {
        players.push_back(std::make_unique<RtmpClient>(playing_client("live")));
        readers.push_back(std::make_unique<MessageRecorder>(*players.back()));
    }
    RtmpClient frozen = publishing_client("live");
    for (std::uint32_t i = 0; i < 10; ++i) {
        frozen.send_video(1000 + i, avc_inter_frame(i, 5000));
    }
    RtmpClient rival = publishing_client("live");
    // An hour ahead: all that follows is held, and the rival has to wait.
    std::uint32_t sent = 0;
    Background freezing([&] {
        if (sent < 1000) {
            frozen.send_video(3600000 + sent, avc_inter_frame(sent, 5000));
            ++sent;
        }
        std::this_thread::sleep_for(Milliseconds{5});
    });
    std::uint32_t message = 0;
    Background waiting([&] {
        rival.send_video(1000 + message * 40, avc_inter_frame(message, 5000));
        ++message;
        std::this_thread::sleep_for(Milliseconds{40});
    });
    // The players receive nothing for longer than their limit.
    Watchdog dog(with(ALL_OFF, {"--stalled", "2", "--behind", "1.5", "--contested", "5"}));
    EXPECT_THAT(dog.line_about(frozen), HasSubstr(": contested: it has sent nothing for 5 s while another "));
    // The server itself drops players at a change of publishers; the watchdog drops none.
    server.err().wait_for_count("Dropping subscriber because format change", players.size());
    EXPECT_THAT(dog.lines(), SizeIs(1));
    freezing.stop();
    waiting.stop();
    EXPECT_EQ(waiting.failure(), "");
}

TEST_F(watchdog, harmless_clients_are_kept) {
    ServerProcess server;
    LivePair live;
    // It is sent twice the bytes: chunks of one byte have a header of one byte each.
    RtmpClient tiny_chunks = playing_client("live");
    tiny_chunks.set_chunk_size(1);
    const MessageRecorder tiny_chunks_reader(tiny_chunks);
    LivePair lone({.stream_name = "lone"});
    RtmpClient audio_player = playing_client("audio");
    const MessageRecorder audio_reader(audio_player);
    RtmpClient audio_publisher = publishing_client("audio");
    audio_publisher.send_audio(0, aac_header());
    std::uint32_t audio_ms = 0;
    Background audio([&] {
        audio_publisher.send_audio(audio_ms, aac_frame(audio_ms));
        audio_ms += 20;
        std::this_thread::sleep_for(Milliseconds{20});
    });
    // Half a second is a tenth of five.
    LivePair seldom({.stream_name = "seldom", .interval = Milliseconds{500}, .message_bytes = 2000});
    RtmpClient metadata_player = playing_client("metadata");
    const MessageRecorder metadata_reader(metadata_player);
    const RtmpClient waiting_player = playing_client("nobody");
    RtmpClient metadata_publisher = publishing_client("metadata");
    Background metadata([&] {
        metadata_publisher.send_metadata(
            amf_object({{"width", amf_number(1280)}, {"height", amf_number(720)}}));
        std::this_thread::sleep_for(Milliseconds{200});
    });
    RtmpClient data_player = playing_client("data");
    const MessageRecorder data_reader(data_player);
    RtmpClient data_publisher = publishing_client("data");
    Background data([&] {
        // These are not relayed to players.
        data_publisher.send_data(amf_string("onTextData"));
        std::this_thread::sleep_for(Milliseconds{200});
    });
    Watchdog dog(TENTH);
    seldom.wait_for_more(16);  // 8 s
    EXPECT_THAT(dog.lines(), IsEmpty());
    dog.stop();
    EXPECT_EQ(dog.err().raw_text(), "");
    for (Background* sending : {&audio, &metadata, &data}) {
        sending->stop();
        EXPECT_EQ(sending->failure(), "");
    }
    audio_reader.wait_for(100);
    tiny_chunks_reader.wait_for(100);
    for (LivePair* pair : {&live, &lone, &seldom}) {
        pair->finish();
    }
}

TEST_F(watchdog, players_are_dropped_for_their_age_one_after_the_other) {
    ServerProcess server;
    const RtmpClient first = playing_client("cam1");
    const RtmpClient second = playing_client("cam1");
    const RtmpClient elsewhere = playing_client("cam2");
    Watchdog dog(with(ALL_OFF, {"--age", "2", "--stagger", "1"}));
    EXPECT_THAT(dog.line_about(elsewhere), EndsWith(dropped("age", "it has played for 2 s")));
    EXPECT_THAT(dog.line_about(first), EndsWith(dropped("age", "it has played for 2 s")));
    EXPECT_THAT(dog.lines(), SizeIs(2));
    EXPECT_THAT(dog.line_about(second), EndsWith(dropped("age", "it has played for 3 s")));
}

TEST_F(watchdog, first_seen_times_survive_its_own_restart) {
    ServerProcess server;
    const RtmpClient player = playing_client("cam1");
    const Words options = with(ALL_OFF, {"--age", "6"});
    const TimePoint before = SteadyClock::now();
    {
        Watchdog dog(options);
        EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] {
            return read_text(STATE + "/history.json").find(player.local_address()) != std::string::npos;
        }));
        EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] { return elapsed_since(before) > Milliseconds{3000}; }));
        dog.stop();
    }
    const TimePoint second_start = SteadyClock::now();
    Watchdog dog(options);
    EXPECT_THAT(dog.line_about(player), EndsWith(dropped("age", "it has played for 6 s")));
    EXPECT_LT(elapsed_since(second_start), Milliseconds{5500}) << "it counted from the second start";
}

TEST_F(watchdog, a_client_of_a_restarted_server_is_not_as_old_as_the_one_that_had_its_slot) {
    Watchdog dog(with(ALL_OFF, {"--age", "3"}));
    {
        ServerProcess server;
        const RtmpClient player = playing_client("cam1");
        const TimePoint seen = SteadyClock::now();
        EXPECT_TRUE(holds_within(DEFAULT_WAIT, [&] { return elapsed_since(seen) > Milliseconds{2000}; }));
        server.stop();
    }
    ServerProcess server;
    const TimePoint before = SteadyClock::now();
    const RtmpClient player = playing_client("cam1");
    EXPECT_THAT(dog.line_about(player), EndsWith(dropped("age", "it has played for 3 s")));
    EXPECT_GE(elapsed_since(before), Milliseconds{3000});
    EXPECT_THAT(dog.lines(), SizeIs(1));
}

TEST_F(watchdog, it_waits_for_a_server_that_is_not_running_and_reports_it_once) {
    Watchdog dog(with(ALL_OFF, {"--unnamed", "1"}));
    std::string trouble;
    dog.err().wait_for_line_starting("v9_rtmp_ctl: there is no socket at", 0, &trouble);
    EXPECT_TRUE(holds_within(
        DEFAULT_WAIT, [] { return statistics().find(R"("looks":0,"failed_looks":)") != std::string::npos; },
        Milliseconds{10}))
        << "without its file it looks dead: " << statistics();
    for (int start = 0; start < 2; ++start) {
        const LineMark mark = dog.err().mark();
        ServerProcess server;
        const RtmpClient unnamed;
        EXPECT_THAT(dog.line_about(unnamed), HasSubstr(": unnamed: "));
        EXPECT_GT(dog.err().count("v9_rtmp_ctl: the server answers.", mark), 0U);
        server.stop();
        dog.err().wait_for_line_starting("v9_rtmp_ctl: ", mark + 1);
    }
    EXPECT_LE(dog.err().lines_since().size(), 8U) << dog.err().raw_text();
    dog.stop();
}

TEST_F(watchdog, a_dry_run_drops_no_client_and_names_each_candidate_once) {
    ServerProcess server;
    RtmpClient player = playing_client(std::string(201, 'a'));
    Watchdog dog(with(ALL_OFF, {"--dry-run"}));
    EXPECT_THAT(dog.line_about(player), StartsWith("would drop "));
    const RtmpClient later = playing_client(std::string(300, 'b'));
    EXPECT_THAT(dog.line_about(later), EndsWith(": long-name: its stream name has 300 bytes"));
    EXPECT_THAT(dog.lines(), SizeIs(2));
    EXPECT_THAT(player.round_trip(), IsEmpty());
}

TEST_F(watchdog, only_one_keeps_its_state_in_a_directory_and_a_dry_run_does_not_touch_it) {
    ServerProcess server;
    const RtmpClient player = playing_client(std::string(201, 'a'));
    Watchdog dog(with(ALL_OFF, {"--long-name", "300"}));
    const auto is_counting = [] { return statistics().find(R"("looks":)") != std::string::npos; };
    ASSERT_TRUE(holds_within(DEFAULT_WAIT, is_counting, Milliseconds{10}));
    const ProgramRun second = run_tool({"watchdog", "--state", STATE});
    EXPECT_EQ(second.end, (ProgramEnd{2, 0}));
    EXPECT_THAT(second.err, StartsWith("v9_rtmp_ctl: another watchdog keeps its state in /run/watchdog. "));
    {
        Watchdog dry(with(ALL_OFF, {"--dry-run"}));
        EXPECT_THAT(dry.line_about(player), StartsWith("would drop "));
        dry.stop();
    }
    dog.stop();
    EXPECT_THAT(statistics(), HasSubstr(R"("long-name":{"limit":300.0,"drops":0,)"));
}

TEST_F(watchdog, that_was_stopped_says_so_and_one_that_was_killed_does_not) {
    ServerProcess server;
    const RtmpClient player = playing_client("cam1");
    Watchdog killed(ALL_OFF);
    const auto runs = [] { return statistics().find(R"("running":true)") != std::string::npos; };
    ASSERT_TRUE(holds_within(DEFAULT_WAIT, runs, Milliseconds{10}));
    const auto metrics = [] { return run_tool({"metrics", "--watchdog-state", STATE}).out; };
    const std::string updated = "\nv9_rtmp_watchdog_updated_timestamp_seconds ";
    killed.kill();
    EXPECT_TRUE(runs());
    EXPECT_THAT(metrics(), HasSubstr(updated)) << "its age raises the alert";
    const std::string of_killed = statistics();
    Watchdog stopped(ALL_OFF);
    ASSERT_TRUE(holds_within(
        DEFAULT_WAIT, [&] { return statistics() != of_killed; }, Milliseconds{10}));
    stopped.stop();
    EXPECT_THAT(statistics(), HasSubstr(R"("running":false)"));
    EXPECT_THAT(metrics(), Not(HasSubstr(updated)));
    EXPECT_THAT(metrics(), HasSubstr("v9_rtmp_watchdog_drops_total{"));
}

TEST_F(watchdog, publishers_from_elsewhere_are_dropped_and_the_drops_are_counted) {
    ServerProcess server;
    const RtmpClient publisher = publishing_client("cam1");
    const RtmpClient player = playing_client("cam1");
    const std::string config = STATE + ".conf";
    std::ofstream(config) << "publish-from = 10.0.0.0/8 192.0.2.0/24\nunnamed = off\n";
    Watchdog dog(with(ALL_OFF, {"--config", config, "--json"}));
    EXPECT_TRUE(holds_within(
        DEFAULT_WAIT, [&] { return !dog.lines().empty(); }, Milliseconds{10}));
    const Words lines = dog.lines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr(R"("action":"dropped","rule":"origin",)"));
    EXPECT_THAT(lines[0],
                HasSubstr(R"("stream":"cam1","mode":"publish","address":")" + publisher.local_address()));
    EXPECT_TRUE(holds_within(DEFAULT_WAIT, [] {
        return statistics().find(R"("origin":{"limit":2.0,"drops":1,"misses":0,"left":0})") !=
               std::string::npos;
    }));
    dog.stop();
    std::filesystem::remove(config);
    EXPECT_THAT(read_text(STATE + "/history.json"), HasSubstr(player.local_address()));
}

TEST_F(watchdog, many_clients_with_names_of_a_megabyte_are_dropped_in_little_memory) {
    if (TIME_SCALE != 1) {
        GTEST_SKIP() << "a sanitizer takes memory of its own";
    }
    constexpr std::size_t CLIENTS = 20;
    constexpr std::size_t NAME_BYTES = 1000000;
    ServerProcess server;
    const std::vector<RtmpClient> clients = publishers_with_long_names(CLIENTS, NAME_BYTES);
    Watchdog dog(ALL_OFF, {"prlimit", "--data=" + std::to_string(4 * CLIENTS * NAME_BYTES)});
    // Each drop sends the whole name, which takes several polls of the server.
    ASSERT_TRUE(holds_within(Milliseconds{60000}, [&] { return dog.lines().size() >= CLIENTS; }));
    for (const RtmpClient& client : clients) {
        EXPECT_THAT(dog.line_about(client), EndsWith("its stream name has 1000000 bytes"));
    }
    for (const std::string& line : dog.lines()) {
        EXPECT_THAT(line, StartsWith("dropped"));
    }
    dog.stop();
    EXPECT_EQ(dog.err().raw_text(), "");
    EXPECT_LT(std::filesystem::file_size(STATE + "/history.json"), 100000U);
}

TEST_F(watchdog, it_continues_when_its_state_cannot_be_saved) {
    std::ofstream(STATE) << "a file and no directory";
    ServerProcess server;
    const RtmpClient unnamed;
    Watchdog dog(with(ALL_OFF, {"--unnamed", "1"}));
    EXPECT_THAT(dog.line_about(unnamed), HasSubstr(": unnamed: "));
    dog.stop();
    ASSERT_THAT(dog.err().lines_since(), SizeIs(1));
    EXPECT_THAT(
        dog.err().lines_since()[0],
        StartsWith("v9_rtmp_ctl: warning: the state cannot be saved in /run/watchdog (Not a directory)"));
}

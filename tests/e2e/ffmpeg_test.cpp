// A real encoder and real players: what ffmpeg publishes and what ffmpeg receives are the same access units.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"
#include "tests/support/time_limits.h"

namespace {

using testing::IsEmpty;
using testing::Not;

const std::string PUBLISH_URL = "rtmp://127.0.0.1/ombrex-live/camera";
const std::string PLAY_URL = "rtmp://127.0.0.1/ombrex-output/camera";
constexpr Milliseconds STREAM_LENGTH{4000};
// ffmpeg exits without reading acknowledgements, so its connection ends with a reset that discards data in
// transit. Without acknowledgements it closes cleanly, and everything arrives.
const std::vector<std::string> ORDERLY_END = {"--no-def-ack"};
const std::string VIDEO = "v";
const std::string AUDIO = "a";
const std::vector<std::string> KINDS = {VIDEO, AUDIO};

// A private directory of the test.
class Scratch {
  public:
    Scratch() {
        std::string pattern = std::filesystem::temp_directory_path() / "v9_ffmpeg_test_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw TestFailure("no folder for temporary files");
        }
        path = pattern;
    }
    ~Scratch() { std::filesystem::remove_all(path); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string operator/(const std::string& name) const { return path / name; }

  private:
    std::filesystem::path path;
};

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The destructor kills it if it is still running: a player waits for more data forever.
class Ffmpeg {
  public:
    Ffmpeg(std::string log_path, std::vector<std::string> more_arguments) : log(std::move(log_path)) {
        std::vector<std::string> arguments = {"ffmpeg", "-nostdin",  "-hide_banner",
                                              "-y",     "-loglevel", "warning"};
        arguments.insert(arguments.end(), more_arguments.begin(), more_arguments.end());
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        child = fork();
        if (child == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(log_fd, STDOUT_FILENO);
            dup2(log_fd, STDERR_FILENO);
            execvp("ffmpeg", argv.data());
            _exit(127);
        }
        close(log_fd);
    }

    ~Ffmpeg() {
        if (!ended) {
            (void)kill(child, SIGKILL);
            (void)waitpid(child, nullptr, 0);
        }
        if (testing::Test::HasFailure() || std::uncaught_exceptions() > 0) {
            std::cerr << "---- " << log << "\n" << contents(log) << "----\n";
        }
    }
    Ffmpeg(const Ffmpeg&) = delete;
    Ffmpeg& operator=(const Ffmpeg&) = delete;

    bool is_running() {
        if (!ended) {
            ended = waitpid(child, &status, WNOHANG) == child;
        }
        return !ended;
    }

    // Returns the exit status. Throws if the process does not end or was killed.
    int wait_for_exit(Milliseconds wait) {
        if (!holds_within(wait, [this] { return !is_running(); })) {
            throw TestFailure("ffmpeg did not end:\n" + contents(log));
        }
        if (!WIFEXITED(status)) {
            throw TestFailure("ffmpeg was killed:\n" + contents(log));
        }
        return WEXITSTATUS(status);
    }

  private:
    std::string log;
    pid_t child = -1;
    bool ended = false;
    int status = 0;
};

struct AccessUnit {
    long dts = 0;
    std::string size_and_hash;
};

// Reads a list in ffmpeg's framehash format.
std::vector<AccessUnit> access_units(const std::string& path) {
    std::vector<AccessUnit> result;
    std::istringstream lines(contents(path));
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream fields(line);
        int stream_idx = -1;
        long dts = 0;
        long pts = 0;
        long duration = 0;
        std::string size;
        std::string hash;
        fields >> stream_idx >> dts >> pts >> duration >> size >> hash;
        if (!fields) {
            throw TestFailure("not a line of a framehash list: " + line);
        }
        result.push_back({dts, size + " " + hash});
    }
    return result;
}

std::vector<std::string> hashes(const std::vector<AccessUnit>& units) {
    std::vector<std::string> result;
    for (const AccessUnit& unit : units) {
        result.push_back(unit.size_and_hash);
    }
    return result;
}

// Returns the codecs' setup data (sequence headers) from the list.
std::vector<std::string> extradata(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream lines(contents(path));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("#extradata")) {
            result.push_back(line);
        }
    }
    return result;
}

class ffmpeg_peers_test : public testing::Test {
  protected:
    void SetUp() override {
        Ffmpeg make(scratch / "make.log", {"-f",
                                           "lavfi",
                                           "-i",
                                           "testsrc2=size=320x240:rate=25:duration=4",
                                           "-f",
                                           "lavfi",
                                           "-i",
                                           "sine=frequency=440:duration=4",
                                           "-c:v",
                                           "libx264",
                                           "-preset",
                                           "veryfast",
                                           "-g",
                                           "25",
                                           "-pix_fmt",
                                           "yuv420p",
                                           "-c:a",
                                           "aac",
                                           "-f",
                                           "flv",
                                           scratch / "source.flv"});
        ASSERT_EQ(make.wait_for_exit(scaled(Milliseconds{30000})), 0);
        Ffmpeg list(scratch / "list.log", list_arguments(scratch / "source.flv", "source"));
        ASSERT_EQ(list.wait_for_exit(scaled(Milliseconds{30000})), 0);
        ASSERT_EQ(units_of("source", VIDEO).size(), 100U);
        ASSERT_GT(units_of("source", AUDIO).size(), 150U);
    }

    // Returns arguments that write one list for each kind: in a common list the last access unit of one kind
    // would wait for the next of the other.
    std::vector<std::string> list_arguments(const std::string& input, const std::string& name) const {
        std::vector<std::string> result = {"-i", input};
        for (const std::string& kind : KINDS) {
            const std::vector<std::string> output = {"-map",
                                                     "0:" + kind,
                                                     "-c",
                                                     "copy",
                                                     "-f",
                                                     "framehash",
                                                     "-hash",
                                                     "md5",
                                                     "-flush_packets",
                                                     "1",
                                                     scratch / (name + "." + kind)};
            result.insert(result.end(), output.begin(), output.end());
        }
        return result;
    }

    std::vector<std::string> publish_arguments() const {
        return {"-re", "-i", scratch / "source.flv", "-c", "copy", "-f", "flv", PUBLISH_URL};
    }

    std::vector<AccessUnit> units_of(const std::string& name, const std::string& kind) const {
        return access_units(scratch / (name + "." + kind));
    }

    // Waits until both lists have all access units of the source, or all but `less` of them.
    void wait_for_all_of(const std::string& name, std::size_t less = 0) const {
        const TimePoint deadline = SteadyClock::now() + STREAM_LENGTH + DEFAULT_WAIT;
        for (const std::string& kind : KINDS) {
            const std::vector<std::string> published = hashes(units_of("source", kind));
            const auto first_last = published.end() - static_cast<std::ptrdiff_t>(1 + less);
            while (true) {
                const std::vector<std::string> played = hashes(units_of(name, kind));
                if (!played.empty() &&
                    std::find(first_last, published.end(), played.back()) != published.end()) {
                    break;
                }
                if (SteadyClock::now() > deadline) {
                    throw TestFailure("the player did not receive the end of stream " + kind + ", only " +
                                      std::to_string(played.size()) + " access units");
                }
                std::this_thread::sleep_for(Milliseconds{20});
            }
        }
    }

    void expect_same_setup(const std::string& name) const {
        for (const std::string& kind : KINDS) {
            EXPECT_EQ(extradata(scratch / (name + "." + kind)), extradata(scratch / ("source." + kind)));
            EXPECT_EQ(extradata(scratch / ("source." + kind)).size(), 1U);
        }
    }

    Scratch scratch;
};

}  // namespace

TEST_F(ffmpeg_peers_test, players_that_wait_receive_every_access_unit_that_is_published) {
    ServerProcess server(ORDERLY_END);
    Ffmpeg player(scratch / "player.log", list_arguments(PLAY_URL, "played"));
    Ffmpeg second_player(scratch / "player2.log", list_arguments(PLAY_URL, "played2"));
    server.err().wait_for_count("Connection for play subscribed to 'camera'", 2);
    Ffmpeg publisher(scratch / "publisher.log", publish_arguments());
    EXPECT_EQ(publisher.wait_for_exit(STREAM_LENGTH + DEFAULT_WAIT), 0);
    wait_for_all_of("played");
    wait_for_all_of("played2");
    for (const char* name : {"played", "played2"}) {
        for (const std::string& kind : KINDS) {
            EXPECT_EQ(hashes(units_of(name, kind)), hashes(units_of("source", kind)));
            EXPECT_LT(units_of(name, kind).front().dts, 100);
        }
        expect_same_setup(name);
    }
}

TEST_F(ffmpeg_peers_test, with_acknowledgements_nothing_is_lost_except_what_the_encoders_reset_discards) {
    ServerProcess server;
    Ffmpeg player(scratch / "player.log", list_arguments(PLAY_URL, "played"));
    server.wait_for_line("Connection for play subscribed to 'camera'");
    Ffmpeg publisher(scratch / "publisher.log", publish_arguments());
    EXPECT_EQ(publisher.wait_for_exit(STREAM_LENGTH + DEFAULT_WAIT), 0);
    server.wait_for_line("Dropping connection");
    // The last half second.
    constexpr std::size_t LAST_MOMENT = 22;
    wait_for_all_of("played", LAST_MOMENT);
    for (const std::string& kind : KINDS) {
        std::vector<std::string> published = hashes(units_of("source", kind));
        const std::vector<std::string> played = hashes(units_of("played", kind));
        ASSERT_LE(played.size(), published.size());
        published.resize(played.size());
        EXPECT_EQ(played, published);
    }
    expect_same_setup("played");
}

TEST_F(ffmpeg_peers_test, a_late_player_starts_near_zero_and_misses_nothing_from_its_first_key_frame_on) {
    ServerProcess server(ORDERLY_END);
    Ffmpeg publisher(scratch / "publisher.log", publish_arguments());
    server.wait_for_line("RTMP: Saving a copy of the audio sequence header");
    // In the middle of the second group of pictures.
    std::this_thread::sleep_for(Milliseconds{1500});
    Ffmpeg player(scratch / "player.log", list_arguments(PLAY_URL, "played"));
    server.wait_for_line("Relay: Repeating video sequence header");
    server.wait_for_line("Relay: Repeating audio sequence header");
    EXPECT_EQ(publisher.wait_for_exit(STREAM_LENGTH + DEFAULT_WAIT), 0);
    wait_for_all_of("played");

    expect_same_setup("played");
    for (const std::string& kind : KINDS) {
        const std::vector<std::string> published = hashes(units_of("source", kind));
        const std::vector<AccessUnit> played = units_of("played", kind);
        ASSERT_THAT(played, Not(IsEmpty()));
        ASSERT_LT(played.size(), published.size());
        const std::vector<std::string> end(published.end() - static_cast<std::ptrdiff_t>(played.size()),
                                           published.end());
        EXPECT_EQ(hashes(played), end);
        // Up to one group of pictures may pass before the first key frame.
        EXPECT_LT(played.front().dts, 1300);
    }
}

// Runs the publishers and players of scripts/scale-test, which connect and leave by commands on
// standard input:
//
//   publish NAME STREAM HOST PORT SKIP        a publisher of the film that omits every SKIP-th frame
//   play NAME STREAM HOST PORT COUNT ADDRESS  COUNT players, ten for each address, beginning with ADDRESS
//   leave NAME                                ends those with that name
//   tally NAME                                prints what the players have received since the last time
//
// With SKIP 0 no frame is omitted. ADDRESS - stands for any address.
//
// Events go to standard output, one line of JSON each. The program ends when its standard input ends.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bench/scale/crowd.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t PLAYERS_PER_ADDRESS = 10;
// Not all players reconnect at the same moment.
constexpr Milliseconds PAUSE{300};
constexpr Milliseconds PAUSE_STEP{7};
constexpr std::size_t PAUSES = 64;

class Crowds {
  public:
    explicit Crowds(const std::string& film_path) : film(Film::read(film_path)) {}
    ~Crowds() {
        for (const auto& [name, group] : players) {
            for (const auto& player : group) {
                player->ask_to_stop();
            }
        }
    }
    Crowds(const Crowds&) = delete;
    Crowds& operator=(const Crowds&) = delete;

    // False if the line is not a command.
    bool obey(const std::string& line) {
        std::istringstream words(line);
        std::string command;
        std::string name;
        words >> command >> name;
        if (command == "publish") {
            std::string stream;
            ClientOptions options;
            std::uint32_t skip = 0;
            words >> stream >> options.server >> options.port >> skip;
            publishers[name] = std::make_unique<FilmPublisher>(name, stream, options, film, sent, skip);
        } else if (command == "play") {
            add_players(name, words);
        } else if (command == "leave") {
            publishers.erase(name);
            for (const auto& player : players[name]) {
                player->ask_to_stop();
            }
            players.erase(name);
            print_event(name, "left");
        } else if (command == "tally") {
            print_tally(name);
        } else {
            return false;
        }
        return true;
    }

  private:
    void add_players(const std::string& name, std::istringstream& words) {
        std::string stream;
        std::string address;
        std::size_t count = 0;
        ClientOptions options;
        words >> stream >> options.server >> options.port >> count >> address;
        const std::size_t dot = address.rfind('.');
        for (std::size_t i = 0; i < count; ++i) {
            if (dot != std::string::npos) {
                const std::size_t last = std::stoul(address.substr(dot + 1)) + i / PLAYERS_PER_ADDRESS;
                options.local_address = address.substr(0, dot + 1) + std::to_string(last);
            }
            players[name].push_back(std::make_unique<FilmPlayer>(
                name + "." + std::to_string(i), stream, options, sent, PAUSE + PAUSE_STEP * (i % PAUSES)));
        }
    }

    void print_tally(const std::string& name) {
        CrowdTally all;
        std::size_t playing = 0;
        for (const auto& player : players[name]) {
            playing += player->is_playing() ? 1 : 0;
            all.merge(player->take_tally());
        }
        const nlohmann::json late = {{"p50", all.lateness.percentile_ms(0.5)},
                                     {"p99", all.lateness.percentile_ms(0.99)},
                                     {"most", all.lateness.most_ms()}};
        print_line({{"tally", name},
                    {"players", players[name].size()},
                    {"playing", playing},
                    {"frames", all.frames},
                    {"missing", all.missing},
                    {"strange", all.strange},
                    {"late_ms", late}});
    }

    const Film film;
    SentFrames sent;
    std::map<std::string, std::unique_ptr<FilmPublisher>> publishers;
    std::map<std::string, std::vector<std::unique_ptr<FilmPlayer>>> players;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: scale_load FILM.flv\n", stderr);
        return 1;
    }
    try {
        Crowds crowds(argv[1]);
        for (std::string line; std::getline(std::cin, line);) {
            if (!crowds.obey(line)) {
                std::fprintf(stderr, "scale_load: no command: %s\n", line.c_str());
                return 1;
            }
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "scale_load: %s\n", error.what());
        return 1;
    }
}

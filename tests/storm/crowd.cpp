#include "tests/storm/crowd.h"

#include <exception>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t VISITORS = 48;
constexpr std::size_t LONGEST_STAY_MS = 20;
constexpr std::size_t LONGEST_PEACE_MS = 30;
constexpr std::size_t LONGEST_ABSENCE_MS = 300;

}  // namespace

Crowd::Crowd(const CrowdOptions& crowd_options) : options(crowd_options) {
    const auto start = [this](Deed deed) {
        threads.push_back(
            std::async(std::launch::async, &Crowd::keep_doing, this, deed, options.seed + threads.size()));
    };
    if (!options.server_may_go) {
        ControlPeer control;
        for (const ListedConnection& connection : list_connections(control)) {
            left_alone.insert(connection.address);
        }
        start(&Crowd::drop_somebody);
    }
    for (std::size_t i = 0; i < VISITORS; ++i) {
        start(&Crowd::pay_visit);
    }
}

std::size_t Crowd::wait() {
    for (std::future<void>& thread : threads) {
        thread.get();
    }
    return connections_opened;
}

bool Crowd::goes_on() const {
    return !stop_requested && (options.connections == 0 || connections_opened < options.connections);
}

void Crowd::keep_doing(Deed deed, std::uint64_t seed) {
    Random random(seed);
    while (goes_on()) {
        try {
            ControlPeer control;
            while (goes_on()) {
                (this->*deed)(random, control);
            }
        } catch (const std::exception&) {
            if (!options.server_may_go) {
                stop_requested = true;
                throw;
            }
            // The next server needs a moment to start, and visitors stay away for a while.
            linger(random, LONGEST_ABSENCE_MS);
        }
    }
}

void Crowd::pay_visit(Random& random, ControlPeer& control) {
    const std::size_t number = visits++;
    Visit visit(random, number);
    try {
        visit_points()[number % visit_points().size()](visit);
    } catch (const TestFailure&) {
        if (!visit.was_interrupted()) {
            throw;
        }
    }
    linger(random, LONGEST_STAY_MS);
    visit_ends()[draw(random, visit_ends().size())](visit, control);
    if (visit.held) {
        drop_by_stream_name(control, visit.own_stream);
    }
    connections_opened += visit.clients.size();
}

void Crowd::drop_somebody(Random& random, ControlPeer& control) {
    linger(random, LONGEST_PEACE_MS);
    std::vector<ListedConnection> connections = list_connections(control);
    if (draw(random, 8) == 0) {
        drop_by_stream_name(control, "");
    }
    std::erase_if(connections, [&](const ListedConnection& connection) {
        return left_alone.contains(connection.address) || draw(random, 6) != 0;
    });
    drop_listed(control, connections);
}

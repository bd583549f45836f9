#include "tests/storm/crowd.h"

#include <exception>
#include <vector>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t LONGEST_STAY_MS = 20;
constexpr std::size_t LONGEST_PEACE_MS = 30;
constexpr std::size_t LONGEST_ABSENCE_MS = 300;

// False if the server has ended the visit earlier, on request or not.
bool come_to(const VisitPoint& point, Visit& visit) {
    try {
        point.come_to(visit);
    } catch (const TestFailure&) {
        if (!visit.was_interrupted()) {
            throw;
        }
        return false;
    }
    return true;
}

const VisitEnd& draw_end(Visit& visit, bool others_may_be_hit) {
    while (true) {
        const VisitEnd& end = visit_ends()[draw(visit.random, visit_ends().size())];
        if ((!end.needs_free_media || !visit.held) && (!end.may_hit_others || others_may_be_hit)) {
            return end;
        }
    }
}

}  // namespace

Crowd::Crowd(const CrowdOptions& crowd_options) : options(crowd_options) {
    if (!options.server_may_go) {
        ControlPeer control;
        for (const ListedConnection& connection : list_connections(control)) {
            left_alone.insert(connection.address);
        }
    }
    for (std::size_t i = 0; i < options.visitors; ++i) {
        visitor_threads.emplace_back([this, i] { receive_visitor(options.seed + 1 + i); });
    }
    if (options.drops_at_random) {
        dropper_thread = std::thread([this] { drop_at_random(options.seed); });
    }
}

Crowd::~Crowd() {
    stop();
    try {
        wait();
    } catch (const std::exception&) {
        // Without wait(), the test is already failing for another reason.
    }
}

void Crowd::wait() {
    for (std::thread& visitor : visitor_threads) {
        visitor.join();
    }
    visitor_threads.clear();
    if (dropper_thread.joinable()) {
        dropper_thread.join();
    }
    if (!failure.empty()) {
        throw TestFailure(failure);
    }
}

bool Crowd::goes_on() const {
    return !stop_requested && (options.connections == 0 || connections_opened < options.connections);
}

template <typename Work>
void Crowd::with_control(Random& random, Work work) {
    while (goes_on()) {
        try {
            ControlPeer control;
            work(control);
        } catch (const std::exception& error) {
            if (!options.server_may_go) {
                note_failure(error.what());
            }
            // The next server needs a moment to start, and visitors stay away for a while.
            std::this_thread::sleep_for(Milliseconds{draw(random, LONGEST_ABSENCE_MS)});
        }
    }
}

void Crowd::receive_visitor(std::uint64_t seed) {
    Random random(seed);
    with_control(random, [&](ControlPeer& control) {
        while (goes_on()) {
            pay_visit(random, control);
        }
    });
}

void Crowd::pay_visit(Random& random, ControlPeer& control) {
    const std::size_t number = visits++;
    const VisitPoint& point = visit_points()[number % visit_points().size()];
    Visit visit(random, number);
    if (come_to(point, visit)) {
        std::this_thread::sleep_for(Milliseconds{draw(random, LONGEST_STAY_MS)});
        const VisitEnd& end = draw_end(visit, options.drops_at_random);
        end.carry_out(visit, control);
    }
    if (visit.held) {
        drop_by_stream_name(control, visit.own_stream);
    }
    connections_opened += visit.clients.size();
}

void Crowd::drop_at_random(std::uint64_t seed) {
    Random random(seed);
    with_control(random, [&](ControlPeer& control) {
        while (goes_on()) {
            std::this_thread::sleep_for(Milliseconds{draw(random, LONGEST_PEACE_MS)});
            drop_somebody(random, control);
        }
    });
}

void Crowd::drop_somebody(Random& random, ControlPeer& control) {
    std::vector<ListedConnection> connections = list_connections(control);
    if (draw(random, 8) == 0) {
        drop_by_stream_name(control, "");
    }
    std::erase_if(connections, [&](const ListedConnection& connection) {
        return left_alone.contains(connection.address) || draw(random, 6) != 0;
    });
    drop_listed(control, connections);
}

void Crowd::note_failure(const std::string& what) {
    stop_requested = true;
    const std::lock_guard guard(mutex);
    if (failure.empty()) {
        failure = what;
    }
}

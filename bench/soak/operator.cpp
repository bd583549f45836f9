#include "bench/soak/operator.h"

#include "bench/publishers.h"
#include "bench/soak/tool.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/test_failure.h"

namespace {

const std::string WAITED_FOR = "soak_nobody";

void expect_dropped(std::uint64_t dropped, std::uint64_t expected) {
    if (dropped != expected) {
        throw TestFailure("the server has dropped " + std::to_string(dropped) + " connections, not " +
                          std::to_string(expected));
    }
}

}  // namespace

void Operator::step() {
    check_list();
    if (steps++ % 2 == 0) {
        drop_a_player();
    } else {
        drop_a_stream();
    }
}

void Operator::check_list() const {
    std::size_t publishers = 0;
    std::size_t players = 0;
    for (const nlohmann::json& connection : list_connections()) {
        publishers += connection.at("mode") == "publish" ? 1 : 0;
        players += connection.at("mode") == "play" ? 1 : 0;
    }
    if (publishers < orders.publishers || players < orders.players) {
        throw TestFailure("v9_rtmp_ctl lists " + std::to_string(publishers) + " publishers and " +
                          std::to_string(players) + " players");
    }
    journal.count("lists");
}

void Operator::drop_a_player() {
    RtmpClient victim = playing_client(stream_name(steps % orders.publishers));
    while (victim.read_message().type != MSG_VIDEO) {
    }
    expect_dropped(drop_by_id(listed_connection(victim.local_address()).at("id")), 1);
    victim.expect_closed();
    journal.count("drops by id");
}

void Operator::drop_a_stream() {
    RtmpClient one = playing_client(WAITED_FOR);
    RtmpClient other = playing_client(WAITED_FOR);
    expect_dropped(drop_by_stream(WAITED_FOR), 2);
    one.expect_closed();
    other.expect_closed();
    journal.count("drops by stream");
}

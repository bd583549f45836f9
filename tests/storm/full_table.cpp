#include "tests/storm/full_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/storm/accept_queue.h"
#include "tests/storm/visits.h"
#include "tests/support/media_bytes.h"

std::deque<RtmpClient> fill_table(const ServerProcess& server, std::size_t present) {
    const LineMark mark = server.mark();
    std::deque<RtmpClient> clients;
    while (present + clients.size() < SLOTS) {
        clients.push_back(connect_through_queue());
    }
    server.err().wait_for_count("Accepted connection", clients.size(), mark);
    return clients;
}

void expect_every_slot_in_use() {
    ControlPeer control;
    std::multiset<std::string> listed;
    for (const ListedConnection& connection : list_connections(control)) {
        listed.insert(connection.id);
    }
    std::multiset<std::string> all;
    for (std::size_t i = 0; i < SLOTS; ++i) {
        all.insert(std::to_string(i));
    }
    EXPECT_EQ(listed, all);
}

void expect_media_through(std::deque<RtmpClient>& clients) {
    // Do each step for all clients before the next step; otherwise their waits would add up.
    for (RtmpClient& client : clients) {
        (void)client.handshake();
        client.send_connect();
    }
    const auto publishes = [](std::size_t i) { return i % 2 == 1; };
    const auto stream_of = [](std::size_t i) { return "slots" + std::to_string(i / 2); };
    for (std::size_t i = 0; i < clients.size(); ++i) {
        (void)clients[i].expect_message(MSG_COMMAND);
        if (!publishes(i)) {
            clients[i].send_play(stream_of(i));
            (void)clients[i].expect_message(MSG_COMMAND);
        } else {
            clients[i].send_publish(stream_of(i));
        }
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        if (publishes(i)) {
            (void)clients[i].expect_message(MSG_COMMAND);
            clients[i].send_audio(1, aac_frame(static_cast<std::uint32_t>(i)));
            EXPECT_EQ(clients[i - 1].expect_message(MSG_AUDIO).payload,
                      aac_frame(static_cast<std::uint32_t>(i)));
        }
    }
}

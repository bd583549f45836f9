// A server's whole table in use: every slot has a client, and can carry media.
#pragma once

#include <cstddef>
#include <deque>

#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

constexpr std::size_t SLOTS = 128;

// Connects until the table is full, with so many clients there already. The server has accepted all of
// them then.
std::deque<RtmpClient> fill_table(const ServerProcess& server, std::size_t present = 0);

// The server lists every slot, once.
void expect_every_slot_in_use();
// One more is closed at once, with one line in the log, and gets nothing.
void expect_no_room(const ServerProcess& server);
// New clients become players and publishers by turns, and media comes from each publisher to the player
// before it.
void expect_media_through(std::deque<RtmpClient>& clients);

// A server with a full table: every slot has a client and can carry media.
#pragma once

#include <cstddef>
#include <deque>

#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

constexpr std::size_t SLOTS = 128;

// Connects clients until the table is full; `present` clients are already connected. Returns after the server
// has accepted all of them.
std::deque<RtmpClient> fill_table(const ServerProcess& server, std::size_t present = 0);

// Requires that the server lists every slot once.
void expect_every_slot_in_use();
// Makes new clients players and publishers by turns. Requires that media arrives from each publisher at the
// player before it.
void expect_media_through(std::deque<RtmpClient>& clients);

// A publisher falls silent and another takes its stream over: the silent one and the player that had its
// media are dropped, and a player that comes then gets the media of the other.
#pragma once

#include "bench/journal.h"
#include "bench/soak/actor.h"

void take_over(Actor& self, Journal& journal);

// A publisher falls silent and another takes over its stream. The silent publisher and the player that had
// its media are dropped, and a new player gets the media of the other.
#pragma once

#include "bench/journal.h"
#include "bench/soak/actor.h"

void take_over(Actor& self, Journal& journal);

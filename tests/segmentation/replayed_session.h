// Passes one client's bytes, cut into segments at any place, through the server's own reader, main loop
// and writer.
//
// Everything runs on the test's thread. The reader requests bytes and gets no more than have arrived. If it
// requests bytes beyond the end of a segment, it waits, and only then does the next segment arrive: nothing
// is coalesced. While it waits, the main loop and the writers run. Time advances only when the server would
// sleep, by 10 ms each time. Random numbers are the same in every replay.
//
// One more connection exists, whose messages are put directly into its queue. If the client publishes, it is
// a player of the stream from the start. If the client plays, it is a publisher whose metadata and sequence
// headers have already been handled.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tests/segmentation/session.h"

// When the main loop and the writers have their turn.
enum class MainLoop {
    AT_EVERY_READ,     // the reader never gets ahead of them: the order of all output is that of the messages
    WHEN_ALL_IS_READ,  // the reader takes all that has arrived first, as far as back-pressure allows
};

struct Output {
    std::string bytes;             // everything, in order
    std::string acknowledgements;  // the messages of this kind, in order
    std::string others;            // the rest, in order, handshake included

    bool operator==(const Output&) const = default;
};

struct Replay {
    std::map<std::string, Output> sent;  // to "client", and to "player" or "publisher"
    std::string printed;
    std::vector<std::size_t> waits;  // where in the bytes the reader had to wait for a segment
};

// segment_ends: ascending positions within the bytes at which a segment ends. The last one ends with the
// session, after which the client closes.
Replay replay(const Session& session, const std::vector<std::size_t>& segment_ends, MainLoop main_loop);

// The random handshake bytes that the server sends in every replay: S1.
std::string replayed_handshake();

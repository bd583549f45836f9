// What listing after listing has shown of each client and each stream. No I/O; times are passed in.
//
// A client is an id with an address. Another address is another client, and so is a counter that has gone
// back, or a stream that is no longer the one that was chosen; choosing one only adds to what is known. A
// listing that lacks a client's address or counters says nothing about it, and nothing counts against it.
//
// Two clocks:
//   monotonic  that of Listing::taken_us, for ages. It goes on while nothing is listed.
//   attended   the sum of the times between listings, of each at most HistoryTimes::longest_gap_us. A server
//              that stood, or a watchdog that did not run, makes no client stand still.
//
// Clients are compared by what each has got since both had settled in the stream, so that neither the age of
// a client nor what each one is sent when it joins makes a difference.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"

struct HistoryTimes {
    std::uint64_t longest_gap_us = 5000000;
    std::uint64_t settle_us = 5000000;   // from a client's choice of a stream until it is compared
    std::uint64_t window_us = 60000000;  // for which earlier values of the counters are known
};

struct CounterHistory {
    std::uint64_t bytes = 0;        // in the last listing
    std::uint64_t first_bytes = 0;  // when the client was first seen
    std::uint64_t grew_us = 0;      // attended time at which it was last seen to have grown, or first seen
};

// A counter as it was.
struct CounterSample {
    std::uint64_t attended_us = 0;
    std::uint64_t bytes = 0;
};

struct ClientRecord {
    Connection connection;                 // as in the last listing
    std::uint64_t first_seen_us = 0;       // monotonic
    std::uint64_t first_attended_us = 0;   // the same on the attended clock
    std::uint64_t stream_seen_us = 0;      // when its stream and mode were first seen; 0 while it has none
    std::uint64_t stream_attended_us = 0;  // the same on the attended clock
    CounterHistory sent;
    CounterHistory received;

    // Of a publisher. The server relays the only one of a name, until it has sent nothing for 2.5 s and
    // another one sends. False also if it is not known.
    bool is_relayed = false;
    std::uint64_t quiet_since_us = 0;  // monotonic; it may have sent nothing since then

    // Of the counter that media_counter() names.
    std::deque<CounterSample> samples;             // the oldest first
    std::uint64_t settled_as = 0;                  // 0 until it has settled; later ones have larger numbers
    std::uint64_t settled_bytes = 0;               // at that moment
    std::map<std::uint64_t, std::uint64_t> since;  // settled_as of a later one to the bytes at its moment
};

// Counters of a stream name. They survive reconnects, and do not go back while the name is known.
struct StreamTotals {
    std::uint64_t bytes_received = 0;        // from publishers, those included that waited
    std::uint64_t bytes_sent = 0;            // to players
    std::uint64_t player_stall_us = 0;       // players stood still while another client of the stream did not
    std::uint64_t publisher_silence_us = 0;  // publishers stood still
    std::uint64_t last_member_us = 0;        // monotonic time at which a client of this name was last listed
};

class ConnectionHistory {
  public:
    // Strangers choose names: longer ones have no totals, and of more names than this those whose last client
    // has been gone for longest are forgotten.
    static constexpr std::size_t MAX_NAME_BYTES = 200;
    static constexpr std::size_t MAX_STREAMS = 512;

    explicit ConnectionHistory(HistoryTimes all_times = {});

    // Listings come in the order of their times. One that is earlier than the last begins a new history
    // of clients.
    void take_in(const Listing& listing);

    // Those of the last listing, by id.
    [[nodiscard]] const std::vector<ClientRecord>& clients() const { return records; }
    [[nodiscard]] const std::map<std::string, StreamTotals>& streams() const { return totals; }

    // Of the last listing.
    [[nodiscard]] std::uint64_t now_us() const { return last_us; }
    [[nodiscard]] std::uint64_t attended_us() const { return attended; }

    // One line without line end. boot tells the boots of the machine apart, since its monotonic clock begins
    // with each:
    //   {"version":1,"boot":"...","now_us":N,"attended_us":N,"settled":N,"clients":[...],"streams":[...]}
    [[nodiscard]] std::string to_json(const std::string& boot) const;

    // Takes what to_json gave. Of another boot only the streams' counters are taken. False, and nothing has
    // changed, when the text is something else.
    [[nodiscard]] bool restore(std::string_view json, const std::string& boot);

  private:
    void take_in_client(const Connection& connection, const ClientRecord* before, std::uint64_t elapsed_us);
    // A publisher that another one took over from is disconnected. So one that is still listed is still
    // relayed, unless its stream had no player: the server forgets such a stream, and the next to send gets
    // the name.
    void forget_relayed(std::vector<ClientRecord>& before) const;
    void follow_publisher(ClientRecord& record) const;
    void settle(ClientRecord& record);
    void forget_left();
    void count_stalls(std::uint64_t elapsed_us);
    void bound_totals();
    [[nodiscard]] StreamTotals* totals_of(const Connection& connection);

    HistoryTimes times;
    std::vector<ClientRecord> records;
    std::map<std::string, StreamTotals> totals;
    std::uint64_t last_us = 0;
    std::uint64_t before_us = 0;  // of the listing before the last
    std::uint64_t attended = 0;
    std::uint64_t last_settled = 0;
};

// Null when no client has this slot.
[[nodiscard]] const ClientRecord* find_client(const std::vector<ClientRecord>& records, unsigned id);

// The one that media moves: bytes received of a publisher, bytes sent of every other client.
[[nodiscard]] const CounterHistory& media_counter(const ClientRecord& record);

// For how long, on the attended clock, the counter has not grown.
[[nodiscard]] std::uint64_t still_us(const ConnectionHistory& history, const CounterHistory& counter);

// How much media a client has got, or sent, since it and the other had both settled. Nothing while one has
// not, or where the two are not of one stream.
[[nodiscard]] std::optional<std::uint64_t> gained_beside(const ClientRecord& client,
                                                         const ClientRecord& other);

// The same at an earlier attended time, by the newest sample that is not later; 0 where that was before both
// had settled.
[[nodiscard]] std::optional<std::uint64_t> gained_beside_until(const ClientRecord& client,
                                                               const ClientRecord& other,
                                                               std::uint64_t attended_us);

// In how many of the parts of equal length into which the last window_us are cut the client's media has
// grown, and by how much in the whole window. Nothing while the client has not been there as long.
struct Movement {
    unsigned parts = 0;
    std::uint64_t bytes = 0;
};
[[nodiscard]] std::optional<Movement> recent_movement(const ConnectionHistory& history,
                                                      const ClientRecord& client, std::uint64_t window_us,
                                                      unsigned parts);

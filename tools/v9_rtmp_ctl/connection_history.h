// What successive listings have shown about each client and each stream. No I/O; times are passed in.
//
// A client is identified by its id and address. A different address, a counter that decreased, or a change of
// stream or mode means a different client; choosing a first stream does not. A client listed without
// address or counters is left as it was.
//
// Two clocks:
//   monotonic  the clock of Listing::taken_us, for ages. It also advances while no listings are taken.
//   attended   the sum of the times between listings, each at most HistoryTimes::longest_gap_us. A stop
//              of the server or of the watchdog therefore does not make clients look stalled.
//
// Clients are compared by what each has received since both settled in the stream. Neither a client's age nor
// the data sent when it joined affects the result.
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
    std::uint64_t window_us = 60000000;  // how far back counter values are kept
};

struct CounterHistory {
    std::uint64_t bytes = 0;        // in the last listing
    std::uint64_t first_bytes = 0;  // when the client was first seen
    std::uint64_t grew_us = 0;      // attended time when it was last seen to grow, or first seen
};

// A past value of a counter.
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

    // For publishers only: the server relays this one. A name's only publisher is relayed until it has sent
    // nothing for 2.5 s and another one sends. Also false if it is not known whether this one is relayed.
    bool is_relayed = false;
    std::uint64_t quiet_since_us = 0;  // monotonic; possibly silent since then

    // For the counter that media_counter() returns.
    std::deque<CounterSample> samples;  // oldest first
    std::uint64_t settled_as = 0;       // 0 until settled; later clients have larger numbers
    std::uint64_t settled_bytes = 0;    // at that moment
    // Maps the settled_as of each client that settled later to this client's bytes at that moment.
    std::map<std::uint64_t, std::uint64_t> since;
};

// The counters of a stream name. They survive reconnects and never decrease while the name is known.
struct StreamTotals {
    std::uint64_t bytes_received = 0;        // from publishers, including waiting ones
    std::uint64_t bytes_sent = 0;            // to players
    std::uint64_t player_stall_us = 0;       // stalled while the stream went on, sum of all players
    std::uint64_t publisher_silence_us = 0;  // silent, sum of all publishers
    std::uint64_t last_member_us = 0;        // monotonic time when a client of this name was last listed
};

class ConnectionHistory {
  public:
    // Names are untrusted. Names longer than MAX_NAME_BYTES have no totals. If there are more than
    // MAX_STREAMS names, those whose last client left longest ago are forgotten.
    static constexpr std::size_t MAX_NAME_BYTES = 200;
    static constexpr std::size_t MAX_STREAMS = 512;

    explicit ConnectionHistory(HistoryTimes all_times = {});

    // Listings are expected in the order of their times. One that is earlier than the last begins a new
    // history of clients.
    void take_in(const Listing& listing);

    // The clients of the last listing, by id.
    [[nodiscard]] const std::vector<ClientRecord>& clients() const { return records; }
    [[nodiscard]] const std::map<std::string, StreamTotals>& streams() const { return totals; }

    // The time of the last listing.
    [[nodiscard]] std::uint64_t now_us() const { return last_us; }
    [[nodiscard]] std::uint64_t attended_us() const { return attended; }

    // One line without a newline:
    //   {"version":1,"boot":"...","now_us":N,"attended_us":N,"settled":N,"clients":[...],"streams":[...]}
    // boot identifies the boot of the machine. It is needed because the monotonic clock restarts at
    // every boot.
    [[nodiscard]] std::string to_json(const std::string& boot) const;

    // Restores a history from the output of to_json. After another boot only the streams' counters are
    // restored. Returns false and changes nothing if the text is not valid.
    [[nodiscard]] bool restore(std::string_view json, const std::string& boot);

  private:
    void take_in_client(const Connection& connection, const ClientRecord* before, std::uint64_t elapsed_us);
    // Clears is_relayed of publishers that may have lost their name. A takeover disconnects the old
    // publisher, so a listed publisher is still relayed unless its stream had no player: the server forgets
    // such a stream, and the next publisher to send gets the name.
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
    std::uint64_t before_us = 0;  // time of the listing before the last
    std::uint64_t attended = 0;
    std::uint64_t last_settled = 0;
};

// Returns null if no client has this slot.
[[nodiscard]] const ClientRecord* find_client(const std::vector<ClientRecord>& records, unsigned id);

// Returns the counter that grows with media: bytes received for a publisher, bytes sent for any other client.
[[nodiscard]] const CounterHistory& media_counter(const ClientRecord& record);

// Returns how long, on the attended clock, the counter has not grown.
[[nodiscard]] std::uint64_t still_us(const ConnectionHistory& history, const CounterHistory& counter);

// Returns the bytes of media a client has received or sent since it and the other had both settled. Empty if
// either has not settled, or if they are in different streams.
[[nodiscard]] std::optional<std::uint64_t> gained_beside(const ClientRecord& client,
                                                         const ClientRecord& other);

// The same at an earlier attended time, from the newest sample that is not later. 0 if they had not both
// settled by then.
[[nodiscard]] std::optional<std::uint64_t> gained_beside_until(const ClientRecord& client,
                                                               const ClientRecord& other,
                                                               std::uint64_t attended_us);

// Divides the last window_us into parts of equal length. Returns the number of parts in which the client's
// media counter grew, and its growth over the whole window. Empty if the client is younger than the window.
struct Movement {
    unsigned parts = 0;
    std::uint64_t bytes = 0;
};
[[nodiscard]] std::optional<Movement> recent_movement(const ConnectionHistory& history,
                                                      const ClientRecord& client, std::uint64_t window_us,
                                                      unsigned parts);

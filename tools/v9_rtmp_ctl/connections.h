// The server's connections as its listing gives them: parsed, sorted and with rates. Pure.
//
// A rate comes from two listings a known time apart. It is known only for a connection in both: the same
// slot, address, stream and mode, and counters that have not decreased.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Slots of the server's table.
constexpr unsigned SLOT_COUNT = 128;

struct VideoSize {
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    bool operator==(const VideoSize&) const = default;
};

// Strings are as the server sent them: escape them before showing them.
struct Connection {
    unsigned id = 0;
    std::string stream;  // empty: none chosen yet
    std::string mode;    // "publish", "play" or empty
    std::optional<VideoSize> size;
    std::optional<std::uint64_t> bytes_sent;      // to the client
    std::optional<std::uint64_t> bytes_received;  // from the client
    std::string address;                          // with port; may be empty
    std::size_t whole_name_bytes = 0;             // length of the stream name before it was cut; 0: not cut

    // Bytes per second; filled in by add_rates.
    std::optional<double> sent_rate;
    std::optional<double> received_rate;

    bool operator==(const Connection&) const = default;
};

// One listing and its arrival time.
struct Listing {
    std::uint64_t taken_us = 0;
    std::vector<Connection> connections;
};

enum class SortKey { ID, STREAM, RATE };

// Reads one line of the listing. A TAB in the stream name stays part of the name: one field precedes it and
// five follow it, and none of these can contain a TAB. Empty if the line does not have this form or its id is
// not a slot.
[[nodiscard]] std::optional<Connection> parse_connection_line(std::string_view line);

// Cuts a stream name longer than longest_bytes and appends an ellipsis, so it cannot equal a whole name.
void cut_name(Connection& connection, std::size_t longest_bytes);

// Returns null if there is no such connection.
[[nodiscard]] const Connection* find_connection(const std::vector<Connection>& connections, unsigned id);

// Returns the server's seven fields, separated by TABs. Untrusted bytes are escaped, so a stream name cannot
// start a new field or line.
[[nodiscard]] std::string plain_line(const Connection& connection);

// "1280x720", or empty if unknown.
[[nodiscard]] std::string size_text(const std::optional<VideoSize>& size);

// Fills in the rates of after's connections.
void add_rates(const Listing& before, Listing& after);

// Adds a rate to a sum if the rate is known.
void add_rate(std::optional<double>& sum, const std::optional<double>& rate);

// The sum of both directions. Empty if neither is known.
[[nodiscard]] std::optional<double> total_rate(const Connection& connection);

// ID: ascending. STREAM: by name, then publishers first; connections without a name last. RATE: the busiest
// first, unknown rates last. Ties are broken by id.
void sort_connections(std::vector<Connection>& connections, SortKey key);

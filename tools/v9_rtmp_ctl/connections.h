// The server's connections as its listing gives them, picked, sorted and with rates. Pure.
//
// A rate comes from two listings a known time apart. It is known only for a connection that is in both: same
// slot, same address, same stream, counters that have not gone back.
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
    std::size_t whole_name_bytes = 0;             // of a stream name that was cut; 0: it is whole

    // Of bytes per second; filled in by add_rates.
    std::optional<double> sent_rate;
    std::optional<double> received_rate;

    bool operator==(const Connection&) const = default;
};

// One listing, and when it arrived.
struct Listing {
    std::uint64_t taken_us = 0;
    std::vector<Connection> connections;
};

enum class SortKey { ID, STREAM, RATE };

// Reads one line of the listing. A TAB within the stream name stays part of the name: one field stands before
// it and five behind it, and none of those can hold a TAB. Nothing when the line is not of this form or its
// id is no slot.
[[nodiscard]] std::optional<Connection> parse_connection_line(std::string_view line);

// Cuts a stream name above this length and ends it with an ellipsis, so that it differs from each name that
// is whole.
void cut_name(Connection& connection, std::size_t longest_bytes);

// Null when the listing has no such connection.
[[nodiscard]] const Connection* find_connection(const std::vector<Connection>& connections, unsigned id);

// The server's own seven fields, separated by TABs, with strangers' bytes escaped: a stream name can neither
// begin a field nor a line.
[[nodiscard]] std::string plain_line(const Connection& connection);

// "1280x720", or empty when it is not known.
[[nodiscard]] std::string size_text(const std::optional<VideoSize>& size);

// Fills in the rates of after's connections.
void add_rates(const Listing& before, Listing& after);

// Adds a rate to a sum if it is known.
void add_rate(std::optional<double>& sum, const std::optional<double>& rate);

// Both directions together; nothing when neither is known.
[[nodiscard]] std::optional<double> total_rate(const Connection& connection);

// ID: ascending. STREAM: by name, the unnamed last, of one name the publishers first. RATE: the busiest
// first, unknown rates last. Ties go by id.
void sort_connections(std::vector<Connection>& connections, SortKey key);

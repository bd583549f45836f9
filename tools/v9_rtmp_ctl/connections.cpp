#include "tools/v9_rtmp_ctl/connections.h"

#include <algorithm>
#include <cstddef>
#include <tuple>

#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/time_units.h"

namespace {

constexpr char SEPARATOR = '\t';

bool parse_size(std::string_view text, std::optional<VideoSize>& size) {
    if (text.empty()) {
        return true;
    }
    const std::size_t cross = text.find('x');
    VideoSize parsed;
    if (cross == std::string_view::npos || !parse_number(text.substr(0, cross), parsed.width) ||
        !parse_number(text.substr(cross + 1), parsed.height)) {
        return false;
    }
    size = parsed;
    return true;
}

bool parse_counter(std::string_view text, std::optional<std::uint64_t>& counter) {
    if (text.empty()) {
        return true;
    }
    std::uint64_t parsed = 0;
    if (!parse_number(text, parsed)) {
        return false;
    }
    counter = parsed;
    return true;
}

// Removes the first field; false if no separator follows it.
bool take_first(std::string_view& line, std::string_view& field) {
    const std::size_t end = line.find(SEPARATOR);
    if (end == std::string_view::npos) {
        return false;
    }
    field = line.substr(0, end);
    line.remove_prefix(end + 1);
    return true;
}

// Removes the last field; false if no separator precedes it.
bool take_last(std::string_view& line, std::string_view& field) {
    const std::size_t begin = line.rfind(SEPARATOR);
    if (begin == std::string_view::npos) {
        return false;
    }
    field = line.substr(begin + 1);
    line.remove_suffix(line.size() - begin);
    return true;
}

std::optional<double> rate(std::optional<std::uint64_t> before, std::optional<std::uint64_t> after,
                           std::uint64_t elapsed_us) {
    if (!before || !after || *after < *before || elapsed_us == 0) {
        return std::nullopt;
    }
    return static_cast<double>(*after - *before) * US_PER_SECOND / static_cast<double>(elapsed_us);
}

bool is_same_client(const Connection& a, const Connection& b) {
    return a.id == b.id && a.address == b.address && a.stream == b.stream && a.mode == b.mode;
}

int mode_rank(const Connection& connection) {
    return connection.mode == "publish" ? 0 : 1;
}

bool comes_first(const Connection& a, const Connection& b, SortKey key) {
    switch (key) {
        case SortKey::ID:
            break;
        case SortKey::STREAM:
            return std::tuple(a.stream.empty(), std::string_view(a.stream), mode_rank(a), a.id) <
                   std::tuple(b.stream.empty(), std::string_view(b.stream), mode_rank(b), b.id);
        case SortKey::RATE:
            // An unknown rate sorts below a rate of 0.
            return std::tuple(-total_rate(a).value_or(-1), a.id) <
                   std::tuple(-total_rate(b).value_or(-1), b.id);
    }
    return a.id < b.id;
}

}  // namespace

std::optional<Connection> parse_connection_line(std::string_view line) {
    Connection connection;
    std::string_view id;
    std::string_view mode;
    std::string_view size;
    std::string_view sent;
    std::string_view received;
    std::string_view address;
    if (!take_first(line, id) || !take_last(line, address) || !take_last(line, received) ||
        !take_last(line, sent) || !take_last(line, size) || !take_last(line, mode)) {
        return std::nullopt;
    }
    if (!parse_number(id, connection.id) || connection.id >= SLOT_COUNT ||
        !parse_size(size, connection.size) || !parse_counter(sent, connection.bytes_sent) ||
        !parse_counter(received, connection.bytes_received)) {
        return std::nullopt;
    }
    connection.stream = line;
    connection.mode = mode;
    connection.address = address;
    return connection;
}

void cut_name(Connection& connection, std::size_t longest_bytes) {
    const std::size_t bytes = connection.stream.size();
    if (bytes > longest_bytes) {
        connection.whole_name_bytes = bytes;
        connection.stream = connection.stream.substr(0, longest_bytes) + "\u2026";
    }
}

const Connection* find_connection(const std::vector<Connection>& connections, unsigned id) {
    const auto found = std::find_if(connections.begin(), connections.end(),
                                    [id](const Connection& c) { return c.id == id; });
    return found == connections.end() ? nullptr : &*found;
}

std::string size_text(const std::optional<VideoSize>& size) {
    return size ? std::to_string(size->width) + "x" + std::to_string(size->height) : std::string();
}

std::string plain_line(const Connection& connection) {
    const auto counter_text = [](const std::optional<std::uint64_t>& counter) {
        return counter ? std::to_string(*counter) : std::string();
    };
    std::string line = std::to_string(connection.id);
    for (const std::string& field :
         {escape_untrusted(connection.stream), escape_untrusted(connection.mode), size_text(connection.size),
          counter_text(connection.bytes_sent), counter_text(connection.bytes_received),
          escape_untrusted(connection.address)}) {
        line += SEPARATOR;
        line += field;
    }
    return line;
}

void add_rates(const Listing& before, Listing& after) {
    const std::uint64_t elapsed_us = after.taken_us > before.taken_us ? after.taken_us - before.taken_us : 0;
    for (Connection& now : after.connections) {
        const auto then = std::find_if(before.connections.begin(), before.connections.end(),
                                       [&now](const Connection& c) { return is_same_client(c, now); });
        if (then != before.connections.end()) {
            now.sent_rate = rate(then->bytes_sent, now.bytes_sent, elapsed_us);
            now.received_rate = rate(then->bytes_received, now.bytes_received, elapsed_us);
        }
    }
}

void add_rate(std::optional<double>& sum, const std::optional<double>& rate) {
    if (rate) {
        sum = sum.value_or(0) + *rate;
    }
}

std::optional<double> total_rate(const Connection& connection) {
    if (!connection.sent_rate && !connection.received_rate) {
        return std::nullopt;
    }
    return connection.sent_rate.value_or(0) + connection.received_rate.value_or(0);
}

void sort_connections(std::vector<Connection>& connections, SortKey key) {
    std::stable_sort(connections.begin(), connections.end(),
                     [key](const Connection& a, const Connection& b) { return comes_first(a, b, key); });
}

// The events between two listings: connections, publishes, plays and disconnects. Pure.
//
// A connection that begins and ends between two listings is not seen. The listing does not say which of
// several publishers of a name is relayed, so the first one seen is assumed to be. If several are first seen
// in the same listing, the likeliest of them is assumed to be relayed (see stream_summary.h). A takeover is
// reported when that publisher leaves while others stay. If several stay, the likeliest is named.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"

enum class EventKind { CONNECT, PUBLISH, PLAY, TAKEOVER, GONE };

// "connect", ...
[[nodiscard]] const char* event_name(EventKind kind);

struct ConnectionEvent {
    EventKind kind = EventKind::CONNECT;
    Connection client;                    // for TAKEOVER: the new publisher
    std::optional<Connection> previous;   // for TAKEOVER: the publisher that left
    std::optional<std::uint64_t> age_us;  // for GONE
};

class EventWatch {
  public:
    // Returns the events since the last listing, departures first. The first listing has no events.
    [[nodiscard]] std::vector<ConnectionEvent> take_in(const Listing& listing);

  private:
    void add_gone(const std::vector<ClientRecord>& before, std::vector<ConnectionEvent>& events) const;
    void add_new(const std::vector<ClientRecord>& before, std::vector<ConnectionEvent>& events) const;
    void follow_publishers(std::vector<ConnectionEvent>& events);

    ConnectionHistory history;
    bool is_first = true;
    std::vector<Connection> listed;                // of the last listing
    std::map<std::string, Connection> publishers;  // the publisher assumed to be relayed, by stream
};

// "publish 3, publish of 'cam1' from 203.0.113.7:50000"; a takeover also names the previous publisher, and a
// departure its age and bytes.
[[nodiscard]] std::string event_line(const ConnectionEvent& event);

// {"unix_seconds":N,"event":"gone","id":3,"stream":...,"mode":...,"address":...,"seconds":12,"bytes_sent":N,
//  "bytes_received":N,"previous_id":null,"previous_address":null}
[[nodiscard]] std::string event_json(const ConnectionEvent& event, std::int64_t unix_seconds);

// The same, except for the time, as environment variables: V9_EVENT, V9_ID, V9_STREAM, V9_MODE, V9_ADDRESS,
// V9_SECONDS, V9_BYTES_SENT, V9_BYTES_RECEIVED, V9_PREVIOUS_ID, V9_PREVIOUS_ADDRESS; an absent value is an
// empty string. Untrusted bytes are escaped; names are cut after 1024 bytes.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> event_variables(const ConnectionEvent& event);

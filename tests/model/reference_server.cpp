#include "tests/model/reference_server.h"

#include <algorithm>
#include <cstdio>

#include "tests/support/amf_bytes.h"
#include "tests/support/expected_replies.h"

namespace reference {

namespace {

constexpr std::uint64_t GRACE_AFTER_PUBLISH_US = 3500000;
constexpr std::uint64_t STALL_US = 2500000;
constexpr std::uint64_t IDLE_STREAM_US = 5000000;
constexpr std::uint32_t LAST_SENT_SLACK_MS = 5000;
constexpr std::uint32_t RESET_GAP_MS = 250;

constexpr std::uint8_t TYPE_AUDIO = 8;
constexpr std::uint8_t TYPE_VIDEO = 9;
constexpr std::uint8_t TYPE_DATA = 18;
constexpr std::uint32_t METADATA_CHUNK_STREAM = 9;

constexpr const char* TRACK_NAME[TRACKS] = {"audio", "video"};
constexpr const char* TRACK_NAME_UPPER[TRACKS] = {"Audio", "Video"};

std::string decimal(std::uint64_t value) {
    return std::to_string(value);
}

std::uint8_t byte_at(const std::string& payload, std::size_t idx) {
    return static_cast<std::uint8_t>(payload[idx]);
}

bool is_sequence_header(Track track, const std::string& payload) {
    if (payload.size() < 2) {
        return false;
    }
    const std::uint8_t first = byte_at(payload, 0);
    const std::uint8_t second = byte_at(payload, 1);
    if (track == AUDIO) {
        return first / 16 == 10 && second == 0;
    }
    if (first >= 128 && first % 16 == 0) {
        return true;
    }
    return first % 16 == 7 && second == 0;
}

}  // namespace

std::string Metadata::encoded() const {
    AmfMembers members;
    const auto add = [&](const char* key, std::uint32_t value) {
        if (value != 0) {
            members.emplace_back(key, amf_number(value));
        }
    };
    add("audiocodecid", codec_id[AUDIO]);
    add("height", height);
    add("serial", serial);
    add("videocodecid", codec_id[VIDEO]);
    add("width", width);
    return amf_object(members);
}

void Server::pass(std::uint64_t time_us) {
    now_us = time_us;
    for (auto it = connections.begin(); it != connections.end();) {
        const auto current = it++;
        auto& [slot, conn] = *current;
        if (conn.drop) {
            close(slot, conn);
        } else {
            serve(slot, conn);
        }
        if (conn.drop || (conn.reader_joined && conn.in.empty())) {
            said += "Dropping connection\n";
            close(slot, conn);
            connections.erase(current);
        }
    }
    dispose_one();
}

void Server::dispose_one() {
    const auto old = std::find_if(streams.begin(), streams.end(), [&](const auto& named) {
        return named.second.players.empty() && named.second.active_us + IDLE_STREAM_US <= now_us;
    });
    if (old != streams.end()) {
        said += "Disposing old stream '" + old->first + "'\n";
        streams.erase(old);
    }
}

void Server::serve(std::size_t slot, Connection& conn) {
    bool waits = false;
    while (!conn.in.empty() && !waits) {
        const Received& received = conn.in.front();
        if (received.request == Request::MEDIA) {
            waits = !media(slot, conn, received.message);
        } else if (received.request == Request::SET_METADATA) {
            data(slot, conn, received);
        } else if (!command(slot, conn, received)) {
            said += "AMF0 error command\n";
            conn.drop = true;
        }
        if (!waits) {
            conn.in.pop_front();
        }
    }
    if (conn.reader_ended && !conn.reader_joined) {
        said += "Thread 1 died\nWARNING: Thread terminated unexpectedly\n";
        conn.reader_joined = true;
    }
}

void Server::close(std::size_t slot, Connection& conn) {
    if (conn.reader_ended && !conn.reader_joined) {
        said += "Not cancelling thread, it died\n";
    }
    conn.reader_joined = true;
    leave(conn.name, slot);
    Stream& stream = streams[conn.name];
    if (stream.publisher == slot) {
        stream.publisher.reset();
    }
}

// Ends a subscription, if there is one.
void Server::leave(const std::string& name, std::size_t slot) {
    if (name.empty()) {
        return;
    }
    Stream& stream = streams[name];
    stream.active_us = now_us;
    if (std::erase(stream.players, slot) != 0) {
        said += "Connection for play unsubscribed from '" + name + "'\n";
    }
}

bool Server::command(std::size_t slot, Connection& conn, const Received& received) {
    const Bytes transaction_id = amf_number(TRANSACTION_ID);
    Message reply = received.message;
    if (received.request == Request::CREATE_STREAM) {
        const auto first = static_cast<std::uint32_t>(draw_number());
        const auto second = static_cast<std::uint32_t>(draw_number());
        conn.stream_id = std::max(first * second & 0x7FFFFFFFU, 1U);
        conn.stream_id_in_doubt = true;
        said += "I choose stream ID " + decimal(conn.stream_id) + "\n";
        reply.payload = create_stream_reply(transaction_id, conn.stream_id);
        conn.out.push_back(reply);
        return true;
    }
    const bool plays = received.request == Request::PLAY;
    if (conn.role != Connection::Role::NONE) {
        said += plays ? "play rejected, stream mode already set\n"
                      : "publish rejected, stream mode already set\n";
        return false;
    }
    conn.role = plays ? Connection::Role::PLAYER : Connection::Role::PUBLISHER;
    conn.name = received.name;
    reply.payload = plays ? play_status(transaction_id) : publish_status(transaction_id);
    conn.out.push_back(reply);
    if (plays) {
        play(slot, conn);
    } else {
        publish(slot, conn);
    }
    return true;
}

void Server::publish(std::size_t slot, Connection& conn) {
    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    if (!stream.publisher) {
        set_publisher(stream, slot);
    }
    conn.stalls_at_us = now_us + GRACE_AFTER_PUBLISH_US;
    said += "Connection is publishing '" + conn.name + "'\n";
}

void Server::play(std::size_t slot, Connection& conn) {
    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    if (!conn.name.empty()) {
        said += "Connection for play subscribed to '" + conn.name + "'\n";
        stream.players.push_back(slot);
    }
    if (stream.publisher && connections.at(*stream.publisher).metadata) {
        said += "Repeating publisher's onMeta to new client\n";
        tell(conn, *connections.at(*stream.publisher).metadata);
    }
}

void Server::data(std::size_t slot, Connection& conn, const Received& received) {
    if (conn.name.empty()) {
        said += "AMF0 notify without a stream name\n";
        return;
    }
    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    if (conn.role != Connection::Role::PUBLISHER) {
        said += "onMetaData ignored from client\n";
        return;
    }
    said += "onMetaData submitted by client\n";
    conn.metadata = received.metadata;
    if (stream.publisher && *stream.publisher != slot) {
        said += "client is publisher but not current publisher, holding onMetaData for later\n";
        return;
    }
    for (const Track track : {AUDIO, VIDEO}) {
        if (const std::uint32_t codec = received.metadata.codec_id[track]; codec != 0) {
            conn.format.codec_id[track] = codec;
        }
    }
    for (const std::size_t player_slot : stream.players) {
        tell(connections.at(player_slot), received.metadata);
    }
}

void Server::tell(Connection& player, const Metadata& metadata) {
    if (!format_fits(player.format, metadata)) {
        player.drop = true;
        return;
    }
    player.out.push_back({TYPE_DATA, 0, METADATA_CHUNK_STREAM, player.stream_id,
                          amf_string("onMetaData") + metadata.encoded()});
}

// Whether the player may continue with this metadata. Also records values the player did not have before.
bool Server::format_fits(Metadata& known, const Metadata& told) {
    const auto fits = [&](std::uint32_t& known_value, std::uint32_t told_value, const char* text) {
        if (known_value == 0) {
            known_value = told_value;
        }
        const bool same = told_value == 0 || told_value == known_value;
        said += same ? "" : text;
        return same;
    };
    return fits(known.width, told.width, "width changed\n") &&
           fits(known.height, told.height, "height changed\n") &&
           fits(known.codec_id[AUDIO], told.codec_id[AUDIO], "audio fourcc changed\n") &&
           fits(known.codec_id[VIDEO], told.codec_id[VIDEO], "video fourcc changed\n");
}

bool Server::media(std::size_t slot, Connection& conn, const Message& message) {
    if (conn.role != Connection::Role::PUBLISHER) {
        return true;
    }
    if (conn.stream_id_in_doubt && message.message_stream_id != conn.stream_id) {
        conn.stream_id_in_doubt = false;
        conn.stream_id = message.message_stream_id;
        said += "Hrmph, RTMP publisher ignored stream ID in reply. Using " + decimal(conn.stream_id) + "\n";
    }
    if (conn.clock_start_us == 0) {
        conn.clock_start_us = now_us;
    }
    if (conn.first_timestamp == 0) {
        conn.first_timestamp = message.timestamp;
    }
    conn.stalls_at_us = now_us + STALL_US;
    const std::uint64_t elapsed_ms = (now_us - conn.clock_start_us) / 1000;
    const std::uint32_t limit = conn.first_timestamp + static_cast<std::uint32_t>(elapsed_ms);

    Stream& stream = streams[conn.name];
    if (stream.publisher && *stream.publisher != slot) {
        Connection& rival = connections.at(*stream.publisher);
        if (rival.stalls_at_us <= now_us) {
            said += "Existing RTMP publisher for stream stalled, taking over as publisher\n";
            rival.stalls_at_us = 0;
            rival.drop = true;
            leave(conn.name, slot);
            stream.publisher.reset();
        }
    }
    if (!stream.publisher) {
        set_publisher(stream, slot);
    }
    if (message.timestamp > limit) {
        return false;
    }
    if (!relay(slot, conn, message)) {
        said += "A/V error\n";
        conn.drop = true;
    }
    return true;
}

void Server::set_publisher(Stream& stream, std::size_t slot) {
    stream.publisher = slot;
    said += "Notifing subscribers of time reset\n";
    for (const std::size_t player_slot : stream.players) {
        Connection& player = connections.at(player_slot);
        if (player.source_base) {
            player.offset = player.last_sent + *player.source_base + RESET_GAP_MS;
        }
        player.source_base.reset();
        if (player.header_delivered[AUDIO] || player.header_delivered[VIDEO]) {
            said += "Dropping subscriber because format change\n";
            player.drop = true;
        }
    }
}

bool Server::relay(std::size_t slot, Connection& conn, const Message& message) {
    if (conn.name.empty()) {
        said += "A/V packet without a stream name\n";
        return false;
    }
    const Track track = message.type == TYPE_AUDIO ? AUDIO : VIDEO;
    if (!agree_on_codec(conn, track, message.payload)) {
        return false;
    }
    if (is_sequence_header(track, message.payload)) {
        conn.saved_header[track] = message;
        said += track == VIDEO ? "RTMP: Saving a copy of the H.264 sequence header\n"
                               : "RTMP: Saving a copy of the audio sequence header\n";
    }
    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    if (stream.publisher == slot) {
        for (const std::size_t player_slot : stream.players) {
            relay_to(connections.at(player_slot), conn, message);
        }
    }
    return true;
}

bool Server::agree_on_codec(Connection& publisher, Track track, const std::string& payload) {
    std::int32_t& lock = publisher.lock[track];
    const std::string lock_text = std::string("Lock on ") + TRACK_NAME[track] + " type ";
    if (const std::uint32_t announced = publisher.format.codec_id[track]; announced != 0) {
        const auto wanted = static_cast<std::int32_t>(announced);
        if (lock != wanted) {
            lock = wanted;
            char hex[16];
            std::snprintf(hex, sizeof hex, "0x%x", announced);
            said += lock_text + std::to_string(wanted) + " (" + hex + ") ''\n";
        }
        return true;
    }
    if (payload.size() < 2) {
        return true;
    }
    const std::int32_t seen = track == AUDIO ? byte_at(payload, 0) / 16 : byte_at(payload, 0) % 16;
    if (lock == -1) {
        lock = seen;
        said += lock_text + std::to_string(seen) + "\n";
    }
    if (lock != seen) {
        said += std::string(TRACK_NAME_UPPER[track]) + " format change\n";
        return false;
    }
    return true;
}

void Server::relay_to(Connection& player, const Connection& publisher, const Message& message) {
    const Track track = message.type == TYPE_AUDIO ? AUDIO : VIDEO;
    if (player.lock[track] == -1) {
        player.lock[track] = publisher.lock[track];
    }
    if (player.lock[track] != publisher.lock[track]) {
        said += std::string("Publisher changed ") + TRACK_NAME[track] + " codec\nRelay fail\n";
        player.drop = true;
        return;
    }
    if (!player.source_base) {
        player.source_base = message.timestamp;
        said += "From publisher to connection: source timebase " + decimal(message.timestamp) + ", add " +
                decimal(player.offset) + "\n";
        if (player.clock_start_us == 0) {
            player.clock_start_us = now_us;
        }
        player.offset = static_cast<std::uint32_t>((now_us - player.clock_start_us) / 1000);
    }
    Message rebased = message;
    rebased.timestamp = player.offset;
    if (message.timestamp >= *player.source_base) {
        rebased.timestamp += message.timestamp - *player.source_base;
    }
    const bool is_header = is_sequence_header(track, message.payload);
    if (!is_header && !player.header_delivered[track] && publisher.saved_header[track]) {
        said += std::string("Relay: Repeating ") + TRACK_NAME[track] + " sequence header\n";
        player.out.push_back(*publisher.saved_header[track]);
        player.out.back().timestamp = rebased.timestamp;
    }
    player.header_delivered[track] = true;
    if (player.last_sent < rebased.timestamp || player.last_sent > rebased.timestamp + LAST_SENT_SLACK_MS) {
        player.last_sent = rebased.timestamp;
    }
    player.out.push_back(std::move(rebased));
}

}  // namespace reference

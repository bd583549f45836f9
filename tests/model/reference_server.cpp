#include "tests/model/reference_server.h"

#include <algorithm>
#include <cmath>
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
constexpr const char* CODEC_KEY[TRACKS] = {"audiocodecid", "videocodecid"};

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

// Returns a member's number, rounded half up. Empty if it is missing or out of range.
std::optional<double> whole_number(const Metadata& metadata, const char* key, double low, double high) {
    const auto member = metadata.members.find(key);
    if (!metadata.has_members() || member == metadata.members.end()) {
        return std::nullopt;
    }
    const double* const number = std::get_if<double>(&member->second);
    if (number == nullptr || std::isnan(*number)) {
        return std::nullopt;
    }
    const double rounded = std::floor(*number + 0.5);
    if (rounded < low || rounded > high) {
        return std::nullopt;
    }
    return rounded;
}

// 0: unknown.
std::int32_t size_in(const Metadata& metadata, const char* key) {
    return static_cast<std::int32_t>(whole_number(metadata, key, 1, 2147483647.0).value_or(0));
}

std::uint32_t codec_in(const Metadata& metadata, Track track) {
    return static_cast<std::uint32_t>(whole_number(metadata, CODEC_KEY[track], 0, 4294967295.0).value_or(0));
}

}  // namespace

std::string Metadata::encoded() const {
    if (kind == Kind::NUMBER) {
        return amf_number(number);
    }
    if (kind == Kind::NOTHING) {
        return amf_null();
    }
    AmfMembers values;
    for (const auto& [key, value] : members) {
        const double* const as_number = std::get_if<double>(&value);
        values.emplace_back(
            key, as_number != nullptr ? amf_number(*as_number) : amf_string(std::get<std::string>(value)));
    }
    return kind == Kind::OBJECT ? amf_object(values)
                                : amf_ecma_array(static_cast<std::uint32_t>(values.size()), values);
}

std::optional<std::size_t> Server::join(bool admitted) {
    for (std::size_t probes = 0; probes < SLOTS; ++probes) {
        const std::size_t slot = (next_slot + probes) % SLOTS;
        if (slots[slot] == nullptr) {
            slots[slot] = std::make_unique<Connection>();
            slots[slot]->admitted = admitted;
            next_slot = slot;
            return slot;
        }
    }
    return std::nullopt;
}

void Server::pass(std::uint64_t time_us) {
    now_us = time_us;
    for (std::size_t slot = 0; slot < SLOTS; ++slot) {
        if (slots[slot] == nullptr) {
            continue;
        }
        serve(slot);
        const Connection& conn = *slots[slot];
        const bool both_threads = conn.reader_runs && conn.writer_runs;
        if (!conn.open || conn.drop || (!both_threads && conn.in.empty())) {
            said += "Dropping connection\n";
            remove(slot);
        }
    }
    dispose_one();
}

void Server::end(std::uint64_t time_us) {
    now_us = time_us;
    for (std::size_t slot = 0; slot < SLOTS; ++slot) {
        if (slots[slot] != nullptr) {
            remove(slot);
        }
    }
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

void Server::serve(std::size_t slot) {
    Connection& conn = *slots[slot];
    if (conn.drop) {
        close(slot);
    }
    while (conn.open && !conn.in.empty()) {
        const Received& received = conn.in.front();
        const std::uint8_t type = received.message.type;
        if (received.request == Request::MEDIA) {
            if (!media(slot, received.message)) {
                break;
            }
        } else if (type == TYPE_DATA) {
            if (!data(slot, received)) {
                said += "AMF0 error notify\n";
                conn.drop = true;
            }
        } else if (received.request != Request::OTHER_TYPE && !command(slot, received)) {
            said += "AMF0 error command\n";
            conn.drop = true;
        }
        conn.in.pop_front();
    }
    if (conn.reader_runs && conn.reader_ended) {
        said += "Thread 1 died\n";
        said += conn.open ? "WARNING: Thread terminated unexpectedly\n" : "";
        conn.reader_runs = false;
    }
    if (conn.writer_runs && conn.writer_ended) {
        said += "Thread 2 died\n";
        said += conn.open ? "WARNING: Thread2 terminated unexpectedly\n" : "";
        conn.writer_runs = false;
    }
}

void Server::close(std::size_t slot) {
    Connection& conn = *slots[slot];
    if (conn.reader_runs && conn.reader_ended) {
        said += "Not cancelling thread, it died\n";
    }
    conn.reader_runs = false;
    if (conn.writer_runs && conn.writer_ended) {
        said += "Not cancelling thread2, it died\n";
    }
    conn.writer_runs = false;
    conn.drop = false;
    conn.open = false;
    leave(conn.name, slot);
    Stream& stream = streams[conn.name];
    if (stream.publisher == slot) {
        stream.publisher.reset();
    }
}

void Server::remove(std::size_t slot) {
    close(slot);
    slots[slot].reset();
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

std::uint32_t Server::draw_id() {
    const std::uint32_t first = draw_number();
    return first * draw_number();
}

bool Server::command(std::size_t slot, const Received& received) {
    Connection& conn = *slots[slot];
    const auto reply = [&](std::string payload) {
        Message answer = received.message;
        answer.payload = std::move(payload);
        conn.out.push_back(std::move(answer));
    };
    const Bytes transaction_id = amf_number(received.transaction_id);
    switch (received.request) {
        case Request::CREATE_STREAM:
            conn.stream_id_in_doubt = true;
            conn.stream_id = std::max(draw_id() & 0x7FFFFFFFU, 1U);
            said += "I choose stream ID " + decimal(conn.stream_id) + "\n";
            reply(create_stream_reply(transaction_id, conn.stream_id));
            return true;
        case Request::RELEASE_STREAM:
            reply(plain_result(transaction_id));
            return true;
        case Request::STREAM_LENGTH:
        case Request::EMPTY_COMMAND:
            return true;
        case Request::PUBLISH_RECORD:
            said += "publish command must indicate 'live' type, not 'record'\n";
            return false;
        case Request::PUBLISH:
            return publish(slot, received);
        case Request::PLAY:
            return play(slot, received);
        case Request::DELETE_STREAM:
            said += "deleteStream, drop connection\n";
            return false;
        default:
            said += "Unknown command '" + received.name + "'\n";
            return false;
    }
}

bool Server::publish(std::size_t slot, const Received& received) {
    Connection& conn = *slots[slot];
    if (!conn.admitted) {
        said += "publish rejected, app mode rejected\n";
        return false;
    }
    if (conn.role != Connection::Role::NONE) {
        said += "publish rejected, stream mode already set\n";
        return false;
    }
    conn.role = Connection::Role::PUBLISHER;
    conn.name = received.name;
    if (received.name.find_first_of("-/. ") != std::string::npos) {
        said += "play rejected, invalid stream name\n";
        return false;
    }
    Message answer = received.message;
    answer.payload = publish_status(amf_number(received.transaction_id));
    conn.out.push_back(std::move(answer));

    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    if (!stream.publisher) {
        stream.publisher = slot;
        time_reset(stream);
    }
    conn.stalls_at_us = now_us + GRACE_AFTER_PUBLISH_US;
    said += "Connection is publishing '" + conn.name + "'\n";
    return true;
}

bool Server::play(std::size_t slot, const Received& received) {
    Connection& conn = *slots[slot];
    if (!conn.admitted) {
        said += "play rejected, app mode rejected\n";
        return false;
    }
    if (conn.role != Connection::Role::NONE) {
        said += "play rejected, stream mode already set\n";
        return false;
    }
    conn.role = Connection::Role::PLAYER;
    conn.name = received.name;
    if (received.name.find_first_of("-/. ") != std::string::npos) {
        said += "play rejected, invalid stream name\n";
        return false;
    }
    Message answer = received.message;
    answer.payload = play_status(amf_number(received.transaction_id));
    conn.out.push_back(std::move(answer));

    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    if (!conn.name.empty()) {
        said += "Connection for play subscribed to '" + conn.name + "'\n";
        stream.players.push_back(slot);
    }
    const Connection* const publisher = stream.publisher ? slots[*stream.publisher].get() : nullptr;
    if (publisher != nullptr && publisher->metadata.has_members()) {
        said += "Repeating publisher's onMeta to new client\n";
        tell(conn, publisher->metadata);
    }
    return true;
}

bool Server::data(std::size_t slot, const Received& received) {
    Connection& conn = *slots[slot];
    if (conn.name.empty()) {
        said += "AMF0 notify without a stream name\n";
        return true;
    }
    Stream& stream = streams[conn.name];
    stream.active_us = now_us;
    switch (received.request) {
        case Request::EMPTY_DATA:
            return true;
        case Request::SET_NOTHING:
            return false;
        case Request::BARE_METADATA:
            said += "Unknown RTMP client notification: 'onMetaData'\n";
            return true;
        case Request::SET_OTHER:
            said += "Unexpected setDataFrame and '" + received.name + "'\n";
            return true;
        default:
            break;
    }
    if (conn.role != Connection::Role::PUBLISHER) {
        said += "onMetaData ignored from client\n";
        return true;
    }
    said += "onMetaData submitted by client\n";
    conn.metadata = received.metadata;
    if (stream.publisher && *stream.publisher != slot) {
        said += "client is publisher but not current publisher, holding onMetaData for later\n";
        return true;
    }
    if (const std::int32_t width = size_in(conn.metadata, "width"); width > 0) {
        conn.width = width;
    }
    if (const std::int32_t height = size_in(conn.metadata, "height"); height > 0) {
        conn.height = height;
    }
    for (const Track track : {AUDIO, VIDEO}) {
        if (const std::uint32_t codec = codec_in(conn.metadata, track); codec != 0) {
            conn.codec_id[track] = codec;
        }
    }
    if (conn.metadata.has_members()) {
        for (const std::size_t player_slot : stream.players) {
            tell(*slots[player_slot], conn.metadata);
        }
    }
    return true;
}

void Server::tell(Connection& player, const Metadata& metadata) {
    if (!format_fits(player, metadata)) {
        player.drop = true;
        return;
    }
    player.out.push_back({TYPE_DATA, 0, METADATA_CHUNK_STREAM, player.stream_id,
                          amf_string("onMetaData") + metadata.encoded()});
}

// Whether the player may continue with this metadata. Also records values the player did not have before.
bool Server::format_fits(Connection& player, const Metadata& metadata) {
    const auto fits = [&](auto& known, auto none, auto told, const std::string& text) {
        if (told <= none || told == known) {
            return true;
        }
        if (known <= none) {
            known = told;
            return true;
        }
        said += text;
        return false;
    };
    return fits(player.width, 0, size_in(metadata, "width"), "width changed\n") &&
           fits(player.height, 0, size_in(metadata, "height"), "height changed\n") &&
           fits(player.codec_id[AUDIO], 0U, codec_in(metadata, AUDIO), "audio fourcc changed\n") &&
           fits(player.codec_id[VIDEO], 0U, codec_in(metadata, VIDEO), "video fourcc changed\n");
}

bool Server::media(std::size_t slot, const Message& message) {
    Connection& conn = *slots[slot];
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
        Connection& rival = *slots[*stream.publisher];
        if (rival.stalls_at_us <= now_us) {
            said += "Existing RTMP publisher for stream stalled, taking over as publisher\n";
            rival.stalls_at_us = 0;
            rival.drop = true;
            leave(conn.name, slot);
            stream.publisher.reset();
        }
    }
    if (!stream.publisher) {
        stream.publisher = slot;
        time_reset(stream);
    }
    if (message.timestamp > limit) {
        return false;
    }
    if (!relay(slot, message)) {
        said += "A/V error\n";
        conn.drop = true;
    }
    return true;
}

void Server::time_reset(const Stream& stream) {
    said += "Notifing subscribers of time reset\n";
    for (const std::size_t player_slot : stream.players) {
        Connection& player = *slots[player_slot];
        if (player.source_base) {
            player.offset = player.last_sent + *player.source_base + RESET_GAP_MS;
        }
        player.source_base.reset();
        player.first_timestamp = 0;
        if (player.header_delivered[AUDIO] || player.header_delivered[VIDEO]) {
            said += "Dropping subscriber because format change\n";
            player.drop = true;
        }
    }
}

bool Server::relay(std::size_t slot, const Message& message) {
    Connection& conn = *slots[slot];
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
            relay_to(*slots[player_slot], conn, message);
        }
    }
    return true;
}

bool Server::agree_on_codec(Connection& publisher, Track track, const std::string& payload) {
    std::int32_t& lock = publisher.lock[track];
    const std::string lock_text = std::string("Lock on ") + TRACK_NAME[track] + " type ";
    if (const std::uint32_t announced = publisher.codec_id[track]; announced != 0) {
        const auto wanted = static_cast<std::int32_t>(announced);
        if (lock != wanted) {
            lock = wanted;
            char text[32];
            const char four[5] = {static_cast<char>(announced >> 24), static_cast<char>(announced >> 16),
                                  static_cast<char>(announced >> 8), static_cast<char>(announced), '\0'};
            std::snprintf(text, sizeof text, " (0x%x) '%s'\n", announced, four);
            said += lock_text + std::to_string(wanted) + text;
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

#include "tests/storm/visits.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <set>
#include <thread>

#include "tests/storm/accept_queue.h"
#include "tests/support/media_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t GREETING_BYTES = 1537;
constexpr std::size_t ANSWER_BYTES = 3073;
constexpr int SMALL_BUFFER = 2304;
constexpr std::uint32_t START_MS = 1000;
constexpr std::uint32_t AN_HOUR_LATER_MS = 3600000;
constexpr Milliseconds PUBLISHER_STALL{2550};  // 2.5 s, and a little

void linger(Random& random, std::size_t at_most_ms) {
    std::this_thread::sleep_for(Milliseconds{draw(random, at_most_ms + 1)});
}

// Returns at least one byte, but not all.
std::string_view cut(Random& random, std::string_view bytes) {
    return bytes.substr(0, 1 + draw(random, bytes.size() - 1));
}

Bytes mp3_frame() {
    return from_hex("2F FF FB 90 64 00 00 00");
}

Bytes metadata_of_width(double width) {
    return amf_object(
        {{"title", amf_string("storm")}, {"width", amf_number(width)}, {"height", amf_number(720)}});
}

// ---- the points

void stay_silent(Visit& visit) {
    visit.open();
}

void send_part_of_the_greeting(Visit& visit) {
    visit.open().send_bytes(cut(visit.random, "\x03" + Bytes(GREETING_BYTES - 1, 'x')));
}

void leave_the_answer_unread(Visit& visit) {
    visit.open().send_bytes("\x03" + Bytes(GREETING_BYTES - 1, 'x'));
}

void send_part_of_the_echo(Visit& visit) {
    RtmpClient& client = visit.open();
    client.send_bytes("\x03" + Bytes(GREETING_BYTES - 1, 'x'));
    client.send_bytes(cut(visit.random, client.read_bytes(ANSWER_BYTES).substr(1, 1536)));
}

void stop_after_the_handshake(Visit& visit) {
    visit.open_handshaken();
}

void send_part_of_a_header(Visit& visit) {
    const Bytes header = basic_header(0, 3) + message_header({.payload = Bytes(100, 'x')});
    visit.open_handshaken().send_bytes(cut(visit.random, header));
}

void send_part_of_a_payload(Visit& visit) {
    RtmpClient& client = visit.open_connected();
    const Bytes message = chunked({.type = MSG_VIDEO, .payload = avc_key_frame(1, 20000), .csid = 6});
    client.send_bytes(cut(visit.random, message));
}

void send_part_of_a_large_payload(Visit& visit) {
    RtmpClient& client = visit.open_publisher();
    client.set_chunk_size(65536);
    const Bytes message = chunked({.type = MSG_VIDEO, .payload = avc_key_frame(1, 900000), .csid = 6},
                                  client.send_chunk_size());
    client.send_bytes(cut(visit.random, message));
}

void wait_for_no_answer(Visit& visit) {
    RtmpClient& client = visit.open_handshaken();
    client.send_connect();
    client.send_create_stream();
    client.send_publish(visit.own_stream);
}

void play_and_wait(Visit& visit) {
    visit.open_player(visit.own_stream);
}

void play_what_is_live(Visit& visit) {
    RtmpClient& player = visit.open_player(LIVE_STREAM);
    visit.await_message(player, MSG_VIDEO);
}

void play_and_never_read(Visit& visit) {
    visit.open_player(LIVE_STREAM, SMALL_BUFFER);
    linger(visit.random, 300);
}

void ask_and_never_read(Visit& visit) {
    RtmpClient& client = visit.open_connected(SMALL_BUFFER);
    for (int i = 0; i < 3; ++i) {
        client.send_command(amf_string("releaseStream") + amf_string(std::string(4000, 'x')) + amf_null());
    }
    linger(visit.random, 200);
}

void publish_to_a_player(Visit& visit) {
    RtmpClient& player = visit.open_player(visit.own_stream);
    RtmpClient& publisher = visit.open_publisher();
    publisher.send_metadata(metadata_of_width(1280));
    publisher.send_audio(START_MS, aac_header());
    publisher.send_video(START_MS, avc_header());
    publisher.send_video(START_MS, avc_key_frame(1, 5000));
    visit.await_message(player, MSG_DATA);
    visit.await_message(player, MSG_AUDIO);
}

// The reader sleeps forever, because the queue of held messages stays full.
void publish_from_the_future(Visit& visit) {
    RtmpClient& publisher = visit.open_publisher();
    visit.held = true;
    publisher.send_audio(START_MS, aac_header());
    for (std::uint32_t i = 0; i < 12; ++i) {
        publisher.send_audio(START_MS + AN_HOUR_LATER_MS, aac_frame(i));
    }
}

// The reader sleeps from time to time.
void publish_faster_than_time(Visit& visit) {
    RtmpClient& publisher = visit.open_publisher();
    for (std::uint32_t i = 0; i < 20; ++i) {
        publisher.send_audio(START_MS + 10 * i, aac_frame(i));
    }
}

// The thread that reads a message prints it, and the main thread prints some of them again.
void give_the_log_much_to_say(Visit& visit) {
    RtmpClient& client = visit.open_publisher();
    Bytes burst;
    for (int i = 0; i < 30; ++i) {
        burst += chunked({.type = MSG_DATA, .payload = amf_string("noise") + amf_number(i), .csid = 4});
    }
    client.send_bytes(burst);
    client.send_metadata(metadata_of_width(1280));
    linger(visit.random, 30);
}

// The player has received media of the first publisher.
void be_dropped_for_a_new_publisher(Visit& visit) {
    RtmpClient& player = visit.open_player(visit.own_stream);
    RtmpClient& publisher = visit.open_publisher();
    publisher.send_audio(START_MS, aac_header());
    visit.await_message(player, MSG_AUDIO);
    publisher.close();
    RtmpClient& successor = visit.open_publisher();
    successor.send_audio(START_MS, aac_header());
    visit.await_interruption();
}

void be_dropped_for_a_new_picture_size(Visit& visit) {
    RtmpClient& player = visit.open_player(visit.own_stream);
    RtmpClient& publisher = visit.open_publisher();
    publisher.send_metadata(metadata_of_width(1280));
    visit.await_message(player, MSG_DATA);
    publisher.send_metadata(metadata_of_width(1920));
    visit.await_interruption();
}

void be_dropped_for_a_new_codec(Visit& visit) {
    RtmpClient& publisher = visit.open_publisher();
    publisher.send_audio(START_MS, aac_header());
    publisher.send_audio(START_MS, mp3_frame());
    visit.await_interruption();
}

void be_dropped_by_a_takeover(Visit& visit) {
    RtmpClient& publisher = visit.open_publisher();
    publisher.send_audio(START_MS, aac_header());
    (void)publisher.round_trip();
    RtmpClient& rival = visit.open_publisher();
    std::this_thread::sleep_for(PUBLISHER_STALL);
    rival.send_audio(START_MS, aac_header());
    visit.await_interruption();
}

// ---- the ends

std::vector<RtmpClient*> open_clients(Visit& visit) {
    std::vector<RtmpClient*> found;
    for (RtmpClient& client : visit.clients) {
        if (client.is_open()) {
            found.push_back(&client);
        }
    }
    return found;
}

// Data from the server precedes the end of the stream and may fill the buffers, so it is read and discarded.
bool is_closed_by_server(const RtmpClient& client) {
    std::array<char, 65536> ignored{};
    ssize_t count = 0;
    do {
        count = recv(client.descriptor(), ignored.data(), ignored.size(), MSG_DONTWAIT);
    } while (count > 0);
    return count == 0 || (errno != EAGAIN && errno != EINTR);
}

void await_close(const RtmpClient& client) {
    const TimePoint deadline = SteadyClock::now() + DEFAULT_WAIT;
    while (!is_closed_by_server(client)) {
        pollfd entry{client.descriptor(), POLLIN, 0};
        if (poll(&entry, 1, poll_timeout_ms(deadline)) == 0) {
            throw TestFailure("the server has not closed the connection of " + client.local_address());
        }
    }
}

// Returns the visit's entries in the server's list.
std::vector<ListedConnection> listed_of(Visit& visit, ControlPeer& control) {
    std::set<std::string> addresses;
    for (const RtmpClient* const client : open_clients(visit)) {
        addresses.insert(client->local_address());
    }
    std::vector<ListedConnection> listed = list_connections(control);
    std::erase_if(listed, [&](const ListedConnection& line) { return !addresses.contains(line.address); });
    return listed;
}

void close_all(Visit& visit, ControlPeer& /*control*/) {
    for (RtmpClient* const client : open_clients(visit)) {
        client->close();
    }
}

void reset_all(Visit& visit, ControlPeer& /*control*/) {
    for (RtmpClient* const client : open_clients(visit)) {
        client->close_with_reset();
    }
}

void stop_sending_and_be_closed(Visit& visit, ControlPeer& /*control*/) {
    for (RtmpClient* const client : open_clients(visit)) {
        (void)shutdown(client->descriptor(), SHUT_WR);  // Fails if the server has closed first.
        await_close(*client);
    }
}

void be_dropped_by_id(Visit& visit, ControlPeer& control) {
    const TimePoint deadline = SteadyClock::now() + DEFAULT_WAIT;
    std::vector<RtmpClient*> left = open_clients(visit);
    while (!left.empty()) {
        if (SteadyClock::now() >= deadline) {
            throw TestFailure("the server does not drop " + left.front()->local_address());
        }
        // Some may not have been accepted yet.
        drop_listed(control, listed_of(visit, control));
        std::erase_if(left, [](const RtmpClient* client) { return is_closed_by_server(*client); });
    }
}

void be_dropped_by_stream_name(Visit& visit, ControlPeer& control) {
    drop_by_stream_name(control, visit.own_stream);
    close_all(visit, control);
}

void be_dropped_while_leaving(Visit& visit, ControlPeer& control) {
    const std::vector<ListedConnection> listed = listed_of(visit, control);
    reset_all(visit, control);
    drop_listed(control, listed);
}

void wait_for_others_and_close(Visit& visit, ControlPeer& control) {
    linger(visit.random, 300);
    close_all(visit, control);
}

}  // namespace

const std::vector<VisitPoint>& visit_points() {
    static const std::vector<VisitPoint> POINTS = {
        {"silent", stay_silent},
        {"in the greeting", send_part_of_the_greeting},
        {"before the echo", leave_the_answer_unread},
        {"in the echo", send_part_of_the_echo},
        {"after the handshake", stop_after_the_handshake},
        {"in a chunk header", send_part_of_a_header},
        {"in a payload", send_part_of_a_payload},
        {"in a large payload", send_part_of_a_large_payload},
        {"with answers under way", wait_for_no_answer},
        {"playing nothing", play_and_wait},
        {"playing", play_what_is_live},
        {"playing, not reading", play_and_never_read},
        {"asking, not reading", ask_and_never_read},
        {"publishing to a player", publish_to_a_player},
        {"held back", publish_from_the_future},
        {"paced", publish_faster_than_time},
        {"logging", give_the_log_much_to_say},
        {"new publisher", be_dropped_for_a_new_publisher},
        {"new picture size", be_dropped_for_a_new_picture_size},
        {"new codec", be_dropped_for_a_new_codec},
        {"takeover", be_dropped_by_a_takeover},
    };
    return POINTS;
}

const std::vector<VisitEnd>& visit_ends() {
    static const std::vector<VisitEnd> ENDS = {
        {"close", false, false, close_all},
        {"reset", false, false, reset_all},
        {"half close", true, false, stop_sending_and_be_closed},
        {"drop by id", false, false, be_dropped_by_id},
        {"drop by stream name", false, false, be_dropped_by_stream_name},
        {"reset and drop", false, true, be_dropped_while_leaving},
        {"somebody else", false, false, wait_for_others_and_close},
    };
    return ENDS;
}

Visit::Visit(Random& visitor_random, std::size_t number)
    : random(visitor_random), own_stream("storm" + std::to_string(number)) {}

RtmpClient& Visit::open(int receive_buffer_bytes) {
    ClientOptions options;
    options.receive_buffer_bytes = receive_buffer_bytes;
    return clients.emplace_back(connect_through_queue(options));
}

RtmpClient& Visit::open_handshaken() {
    RtmpClient& client = open();
    (void)client.handshake();
    return client;
}

RtmpClient& Visit::open_connected(int receive_buffer_bytes) {
    RtmpClient& client = open(receive_buffer_bytes);
    (void)client.handshake();
    (void)client.connect_app();
    return client;
}

RtmpClient& Visit::open_publisher() {
    RtmpClient& client = open_connected();
    (void)client.publish(own_stream);
    return client;
}

RtmpClient& Visit::open_player(const std::string& stream_name, int receive_buffer_bytes) {
    RtmpClient& client = open_connected(receive_buffer_bytes);
    (void)client.play(stream_name);
    return client;
}

bool Visit::was_interrupted() {
    const std::vector<RtmpClient*> open = open_clients(*this);
    return std::any_of(open.begin(), open.end(),
                       [](const RtmpClient* client) { return is_closed_by_server(*client); });
}

// Whether the server has closed one of the clients, as far as this is visible before unread data.
bool Visit::await_hang_up(Milliseconds wait) {
    std::vector<pollfd> entries;
    for (const RtmpClient* const client : open_clients(*this)) {
        entries.push_back({client->descriptor(), POLLRDHUP, 0});
    }
    return poll(entries.data(), entries.size(), static_cast<int>(wait.count())) > 0;
}

void Visit::await_message(RtmpClient& client, std::uint8_t type) {
    constexpr Milliseconds LOOK_AROUND{50};
    const TimePoint deadline = SteadyClock::now() + DEFAULT_WAIT;
    while (SteadyClock::now() < deadline && !await_hang_up(Milliseconds{0})) {
        const std::optional<RtmpMessage> message = client.try_read_message(LOOK_AROUND);
        if (message && message->type == type) {
            return;
        }
    }
    throw TestFailure("a visitor got no message of type " + std::to_string(type));
}

void Visit::await_interruption() {
    if (!await_hang_up(DEFAULT_WAIT)) {
        throw TestFailure("nobody of a visit to " + own_stream + " was dropped");
    }
}

void drop_by_stream_name(ControlPeer& control, const std::string& stream_name) {
    (void)control.ask("drop connection by stream name", {stream_name});
}

// Sends all requests at once, because the server polls its control socket only ten times a second.
void drop_listed(ControlPeer& control, const std::vector<ListedConnection>& connections) {
    constexpr std::uint64_t ANY_ID = 1;
    Bytes requests;
    for (const ListedConnection& connection : connections) {
        requests += control_request(ANY_ID, "drop connection by id", {connection.id, connection.stream_name});
    }
    control.send_bytes(requests);
    for (std::size_t i = 0; i < connections.size(); ++i) {
        (void)control.read_reply();
    }
}

std::vector<ListedConnection> list_connections(ControlPeer& control) {
    constexpr std::size_t STREAM_NAME_FIELD = 1;
    std::vector<ListedConnection> connections;
    for (const std::string& line : control.ask("list connections").values("connection")) {
        std::vector<std::string> fields(1);
        for (const char c : line) {
            if (c == '\t') {
                fields.emplace_back();
            } else {
                fields.back() += c;
            }
        }
        connections.push_back({fields.at(0), fields.at(STREAM_NAME_FIELD), fields.back()});
    }
    return connections;
}

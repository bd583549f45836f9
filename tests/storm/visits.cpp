#include "tests/storm/visits.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <optional>
#include <sstream>
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

// Returns at least one byte, but not all.
std::string_view cut(Random& random, std::string_view bytes) {
    return bytes.substr(0, 1 + draw(random, bytes.size() - 1));
}

Bytes metadata_of_width(double width) {
    return amf_object(
        {{"title", amf_string("storm")}, {"width", amf_number(width)}, {"height", amf_number(720)}});
}

// ---- the points

void send_part_of_the_greeting(Visit& visit) {
    visit.open().send_bytes(cut(visit.random, "\x03" + Bytes(GREETING_BYTES - 1, 'x')));
}

void send_part_of_the_echo(Visit& visit) {
    RtmpClient& client = visit.open();
    client.send_bytes("\x03" + Bytes(GREETING_BYTES - 1, 'x'));
    client.send_bytes(cut(visit.random, client.read_bytes(ANSWER_BYTES).substr(1, 1536)));
}

void send_part_of_a_header(Visit& visit) {
    const Bytes header = basic_header(0, 3) + message_header({.payload = Bytes(100, 'x')});
    visit.open_handshaken().send_bytes(cut(visit.random, header));
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

// ---- the ends

// Data from the server precedes the end of the stream and may fill the buffers, so it is read and discarded.
bool is_closed_by_server(const RtmpClient* client) {
    std::array<char, 65536> ignored{};
    ssize_t count = 0;
    do {
        count = recv(client->descriptor(), ignored.data(), ignored.size(), MSG_DONTWAIT);
    } while (count > 0);
    return count == 0 || (errno != EAGAIN && errno != EINTR);
}

// Repeats the request until the server has closed all connections of the visit.
void await_close(Visit& visit, const std::function<void()>& request) {
    const bool closed = holds_within(DEFAULT_WAIT, [&] {
        request();
        const std::vector<RtmpClient*> open = visit.open_clients();
        return std::all_of(open.begin(), open.end(), is_closed_by_server);
    });
    if (!closed) {
        throw TestFailure("the server has not closed the connections of a visit to " + visit.own_stream);
    }
}

// Returns the visit's entries in the server's list.
std::vector<ListedConnection> listed_of(Visit& visit, ControlPeer& control) {
    std::vector<ListedConnection> listed = list_connections(control);
    std::erase_if(listed, [&](const ListedConnection& line) {
        return std::none_of(visit.clients.begin(), visit.clients.end(), [&](const RtmpClient& client) {
            return client.is_open() && client.local_address() == line.address;
        });
    });
    return listed;
}

void close_all(Visit& visit, ControlPeer& /*control*/) {
    for (RtmpClient* const client : visit.open_clients()) {
        client->close();
    }
}

void reset_all(Visit& visit, ControlPeer& /*control*/) {
    for (RtmpClient* const client : visit.open_clients()) {
        client->close_with_reset();
    }
}

void stop_sending_and_be_closed(Visit& visit, ControlPeer& control) {
    for (RtmpClient* const client : visit.open_clients()) {
        (void)shutdown(client->descriptor(), SHUT_WR);  // Fails if the server has closed first.
    }
    await_close(visit, [&] {
        if (visit.held) {
            drop_by_stream_name(control, visit.own_stream);
        }
    });
}

void be_dropped_by_id(Visit& visit, ControlPeer& control) {
    // Some may not have been accepted yet.
    await_close(visit, [&] { drop_listed(control, listed_of(visit, control)); });
}

void be_dropped_by_stream_name(Visit& visit, ControlPeer& control) {
    drop_by_stream_name(control, visit.own_stream);
    close_all(visit, control);
}

}  // namespace

const std::vector<void (*)(Visit&)>& visit_points() {
    static const std::vector<void (*)(Visit&)> POINTS = {
        send_part_of_the_greeting, send_part_of_the_echo,
        send_part_of_a_header,     send_part_of_a_large_payload,
        wait_for_no_answer,        play_and_wait,
        play_what_is_live,         play_and_never_read,
        publish_to_a_player,       publish_from_the_future,
        give_the_log_much_to_say,  be_dropped_for_a_new_publisher,
    };
    return POINTS;
}

const std::vector<void (*)(Visit&, ControlPeer&)>& visit_ends() {
    static const std::vector<void (*)(Visit&, ControlPeer&)> ENDS = {
        close_all, reset_all, stop_sending_and_be_closed, be_dropped_by_id, be_dropped_by_stream_name,
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

RtmpClient& Visit::open_handshaken(int receive_buffer_bytes) {
    RtmpClient& client = open(receive_buffer_bytes);
    (void)client.handshake();
    return client;
}

RtmpClient& Visit::open_connected(int receive_buffer_bytes) {
    RtmpClient& client = open_handshaken(receive_buffer_bytes);
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

std::vector<RtmpClient*> Visit::open_clients() {
    std::vector<RtmpClient*> found;
    for (RtmpClient& client : clients) {
        if (client.is_open()) {
            found.push_back(&client);
        }
    }
    return found;
}

bool Visit::was_interrupted() {
    const std::vector<RtmpClient*> open = open_clients();
    return std::any_of(open.begin(), open.end(), is_closed_by_server);
}

// Waits for the server to close one of the clients. Detects only what poll(2) reports while data is unread.
bool Visit::await_hang_up(Milliseconds wait) {
    std::vector<pollfd> entries;
    for (const RtmpClient* const client : open_clients()) {
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
        throw TestFailure("no client of a visit to " + own_stream + " was dropped");
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
    std::vector<ListedConnection> connections;
    for (const std::string& line : control.ask("list connections").values("connection")) {
        ListedConnection& connection = connections.emplace_back();
        std::istringstream fields(line);
        std::getline(fields, connection.id, '\t');
        std::getline(fields, connection.stream_name, '\t');
        connection.address = line.substr(line.rfind('\t') + 1);
    }
    return connections;
}

void linger(Random& random, std::size_t less_than_ms) {
    std::this_thread::sleep_for(Milliseconds{draw(random, less_than_ms)});
}

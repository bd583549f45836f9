// Plays whole sessions: a list of what clients and operators do, against the real server from the accepted
// socket to the sent chunk, in one thread and on a clock of its own. After every pass of the main loop the
// table, the registry and the queues must be consistent.
//
//   input: options | actions: what and when | which client | arguments
#include <comm_socket_v4.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/check.h"
#include "base/diag.h"
#include "control/control_commands.h"
#include "core/connection.h"
#include "core/connection_table.h"
#include "core/limits.h"
#include "core/listener.h"
#include "core/switches.h"
#include "fuzz/support/chunk_parser.h"
#include "fuzz/support/fake_system.h"
#include "fuzz/support/input_bytes.h"
#include "relay/stream_name.h"
#include "relay/stream_registry.h"
#include "rtmp/message_types.h"
#include "tests/support/amf_bytes.h"
#include "tests/support/fake_clock.h"
#include "tests/support/wire_bytes.h"

namespace {

constexpr std::size_t CLIENTS = 8;
constexpr std::size_t MAX_ACTIONS = 400;
constexpr std::size_t MAX_CLIENTS_EVER = 300;
constexpr std::uint64_t PASS_US = 10000;
constexpr std::uint64_t START_US = 1000000000;
constexpr std::size_t MAX_WAITING_MESSAGES = 8;
constexpr std::size_t CROWDED_PACKETS = 1024;
constexpr std::size_t MAX_CHUNK_STREAMS = 64;
constexpr std::size_t HANDSHAKE_BYTES = 3073;

constexpr unsigned OPTION_NO_DEFAULT_ACKNOWLEDGEMENT = 1;
constexpr unsigned OPTION_DUMP = 2;
constexpr unsigned OPTION_STOP_AT_PRINTS = 4;

// How a client connects: it sends nothing, or the previous one stays open.
constexpr unsigned NO_HANDSHAKE = 7;
constexpr unsigned STAYS_OPEN = 8;

// Bit 7 of an action: the main loop does not run before the next one.
constexpr unsigned AT_ONCE = 0x80;

enum class Action : std::uint8_t {
    CONNECT,
    CONNECT_COMMAND,
    CREATE_STREAM,
    PUBLISH,
    PLAY,
    MEDIA,
    METADATA,
    CHUNK_SIZE,
    WINDOW,
    COMMAND,
    PAYLOAD,
    RAW,
    CLOSE,
    TIME,
    READING,
    LIST,
    DROP_ID,
    DROP_NAME,
    CONTROL,
    REFUSE_THREADS,
    CROWD,
    COUNT,
};

const std::array<std::string, 8> NAMES{"cam1", "cam_2", "c", "bad-name", "", "cam1/", "CAM1", "x_9"};
const std::array<std::string, 6> APPLICATIONS{"ombrex-live",   "ombrex-output", "ombrex-live/",
                                              "ombrex-live//", "other",         ""};
const std::array<std::string, 8> COMMANDS{"releaseStream", "FCPublish",   "FCUnpublish", "getStreamLength",
                                          "deleteStream",  "closeStream", "connect",     ""};
const std::array<std::string, 10> MEDIA{std::string("\xAF\x00\x12\x10", 4),
                                        std::string("\xAF\x01\x21", 3),
                                        std::string("\x2F\x00\x21", 3),
                                        std::string("\x17\x00\x01\x64", 4),
                                        std::string("\x27\x01\x9A", 3),
                                        std::string("\x22\x00\x9A", 3),
                                        std::string("\x90hvc1", 5),
                                        std::string("\x91hvc1", 5),
                                        std::string("\xAF", 1),
                                        std::string()};
const std::array<std::uint32_t, 8> STEPS_MS{0, 1, 23, 40, 1000, 0xFFFFFF, 0x80000000, 0xFFFFFFF0};
const std::array<std::uint32_t, 8> CHUNK_SIZES{0, 1, 3, 128, 4096, 65536, 4194304, 4194305};
const std::array<std::uint32_t, 6> WINDOWS{0, 1, 100, 2500, 2500000, 0xFFFFFFFF};
const std::array<double, 12> NUMBERS{0,
                                     1,
                                     2,
                                     7,
                                     10,
                                     1280.4,
                                     719.5,
                                     -5,
                                     1e300,
                                     4294967295.0,
                                     std::numeric_limits<double>::infinity(),
                                     std::numeric_limits<double>::quiet_NaN()};

template <typename Value, std::size_t COUNT>
const Value& pick(const std::array<Value, COUNT>& values, unsigned choice) {
    return values[choice % COUNT];
}

// --- the clients

struct Client {
    FakeClient* socket = nullptr;
    std::uint32_t chunk_size = 128;
    std::uint32_t timestamp = 0;
};

std::array<Client, CLIENTS> clients;

void connect_client(Client& client, bool shake_hands) {
    client = {};
    client.socket = &fake_system::connect_client();
    if (shake_hands) {
        client.socket->send_to_server("\x03" + std::string(1536, 'c') + std::string(8, '\0') +
                                      std::string(1528, 'Z'));
    }
}

void send_message(Client& client, std::uint8_t type, std::uint32_t timestamp, std::string_view payload,
                  std::uint32_t chunk_stream_id = 3, std::uint32_t message_stream_id = 1) {
    const bool extended = timestamp >= 0xFFFFFF;
    const auto id = static_cast<int>(chunk_stream_id);
    Bytes bytes = bytes_of({id}) + be24(extended ? 0xFFFFFF : timestamp) +
                  be24(static_cast<std::uint32_t>(payload.size())) + bytes_of({type}) +
                  le32(message_stream_id) + (extended ? be32(timestamp) : Bytes());
    for (std::size_t at = 0; at < payload.size(); at += client.chunk_size) {
        bytes += at == 0 ? Bytes() : bytes_of({0xC0 | id});
        bytes += payload.substr(at, client.chunk_size);
    }
    client.socket->send_to_server(bytes);
}

void send_command(Client& client, const Bytes& payload) {
    send_message(client, MESSAGE_AMF0_COMMAND, 0, payload, 3, 0);
}

Bytes number_of(unsigned choice) {
    return amf_number(pick(NUMBERS, choice));
}

Bytes metadata_of(InputBytes& input) {
    const unsigned what = input.u8();
    AmfMembers members;
    const std::array<const char*, 5> keys{"width", "height", "audiocodecid", "videocodecid", "title"};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if ((what & 1U << i) != 0) {
            members.emplace_back(keys[i], i == 4 ? amf_string("live") : number_of(input.u8()));
        }
    }
    if ((what & 0x20) != 0) {
        return amf_object(members);
    }
    const auto count = static_cast<std::uint32_t>(members.size());
    return amf_ecma_array((what & 0x40) != 0 ? count + 1 : count, members);
}

void send_media(Client& client, InputBytes& input) {
    const unsigned what = input.u8();
    client.timestamp += pick(STEPS_MS, what >> 5);
    std::string payload = pick(MEDIA, what & 0x0F);
    const unsigned char first = payload.empty() ? 0 : static_cast<unsigned char>(payload[0]);
    const bool audio = (first & 0x0F) == 0x0F;
    if ((what & 0x10) != 0) {
        payload.append(std::size_t{input.u8()} * 16, 'm');
    }
    const std::uint32_t message_stream_id = (input.u8() & 1U) + 1;
    send_message(client, audio ? MESSAGE_AUDIO : MESSAGE_VIDEO, client.timestamp, payload, audio ? 4 : 6,
                 message_stream_id);
}

// --- the operator

using ControlPacket = comm_socket_v4_packet;

// Returns the server's reply to a request with these arguments. The caller releases it.
ControlPacket* ask(const std::string& command, const std::vector<std::string>& arguments, bool async,
                   bool* answered) {
    ControlPacket* const request = comm_socket_v4_packet_create();
    comm_socket_v4_packet_set_async(request, async ? 1 : 0);
    CHECK(comm_socket_v4_packet_begin_writing(request, 0, command.c_str(), "") == 0);
    for (const std::string& argument : arguments) {
        CHECK(comm_socket_v4_packet_write_argv_bytes(request, argument.data(), argument.size()) == 0);
    }
    CHECK(comm_socket_v4_packet_write_end(request) == 0);
    ControlPacket* const reply = comm_socket_v4_packet_create();
    comm_socket_v4_packet_make_response(reply);
    *answered = run_control_command(request, reply);
    comm_socket_v4_packet_release(request);
    return reply;
}

std::string message_of(const ControlPacket* reply) {
    return comm_socket_v4_packet_get_message(reply);
}

template <typename Matches>
std::size_t count_connections(Matches matches) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        const RTMPConnection* const conn = get_connection(i);
        count += conn != nullptr && matches(*conn) ? 1U : 0U;
    }
    return count;
}

void list_connections(const std::string& mode) {
    bool answered = false;
    ControlPacket* const reply = ask("list connections", {mode}, false, &answered);
    CHECK(answered);
    const std::size_t expected = count_connections(
        [&mode](const RTMPConnection& conn) { return mode.empty() || conn.stream_mode == mode; });
    CHECK(comm_socket_v4_packet_get_pair_count(reply) == expected + 1);
    comm_socket_v4_packet_release(reply);
}

void drop_by_name(const std::string& name) {
    bool answered = false;
    ControlPacket* const reply = ask("drop connection by stream name", {name}, false, &answered);
    CHECK(answered);
    const std::size_t expected = count_connections(
        [&name](const RTMPConnection& conn) { return conn.stream_name == name && conn.close_requested; });
    CHECK(message_of(reply) == "OK, " + std::to_string(expected) + " connections dropped");
    comm_socket_v4_packet_release(reply);
}

void drop_by_id(std::size_t id, const std::string& name) {
    bool answered = false;
    ControlPacket* const reply = ask("drop connection by id", {std::to_string(id), name}, false, &answered);
    CHECK(answered);
    if (id < MAX_CONNECTIONS) {
        const RTMPConnection* const conn = get_connection(id);
        const bool matches = conn != nullptr && (name.empty() || conn->stream_name == name);
        CHECK(message_of(reply) == (conn == nullptr ? "OK, no such connection"
                                    : matches       ? "OK"
                                                    : "Stream name does not match"));
        CHECK(!matches || conn->close_requested);
    } else {
        CHECK(reply->status == COMM_SOCKET_V4_STATUS_ERROR);
    }
    comm_socket_v4_packet_release(reply);
}

void ask_anything(InputBytes& input) {
    const bool async = (input.u8() & 1) != 0;
    const std::string command(input.take(input.u8() % 40));
    const std::string argument(input.take(input.u8() % 8));
    bool answered = false;
    comm_socket_v4_packet_release(ask(command.substr(0, command.find('\0')), {argument}, async, &answered));
    CHECK(answered != async);
}

// --- what must hold

// What the previous passes have shown about a connection.
struct Watched {
    int fd = -1;
    bool close_requested = false;
    std::size_t waiting_in = 0;
    std::size_t waiting_out = 0;
    bool publisher_in_force = false;
    // For a publisher: its timestamps never went back and stayed small enough that sums do not wrap.
    std::uint32_t newest_timestamp = 0;
    bool steady = true;
    // For a player: its publisher, and the last timestamp it was sent.
    int publisher_fd = -1;
    std::uint32_t last_output = 0;
};

std::array<Watched, MAX_CONNECTIONS> watched;

bool is_media(const RTMP_Packet& pkt) {
    return is_audio_or_video(pkt.chunk.message_type_id);
}

void check_queues(RTMPConnection& conn) {
    CHECK(conn.connection_in.size() <= MAX_WAITING_MESSAGES);
    CHECK(conn.chunk_streams.size() <= MAX_CHUNK_STREAMS);
    const auto is_acknowledgement = [](const RTMP_Packet& pkt) {
        return pkt.chunk.message_type_id == MESSAGE_ACKNOWLEDGEMENT;
    };
    for (std::size_t i = CROWDED_PACKETS; i < conn.connection_out.size(); ++i) {
        CHECK(!is_acknowledgement(conn.connection_out[i]) || !is_acknowledgement(conn.connection_out[i - 1]));
    }
}

void check_counters(const RTMPConnection& conn) {
    const FakeClient* const client = fake_system::find_client(conn.fd);
    CHECK(client != nullptr && client->accepted && !client->closed_by_server);
    // A transfer that a thread has not completed is not counted yet.
    CHECK(conn.conn_g_server.bytes_total <= client->read_by_server);
    CHECK(conn.conn_g_client.bytes_total <= client->received.size());
}

int publisher_fd_of(const std::string& name) {
    const std::size_t publisher = find_or_insert_stream(name).publisher;
    return publisher == NO_CONNECTION ? -1 : get_connection(publisher)->fd;
}

// Looking up a name inserts a record, which the housekeeping removes; this has no other effect.
void check_stream(const std::string& name) {
    const StreamRecord& record = find_or_insert_stream(name);
    if (record.publisher != NO_CONNECTION) {
        const RTMPConnection* const publisher = get_connection(record.publisher);
        CHECK(publisher != nullptr && publisher->fd >= 0);
        CHECK(publisher->stream_mode == "publish" && publisher->stream_name == name);
    }
    for (auto player = record.players.begin(); player != record.players.end(); ++player) {
        CHECK(std::find(player + 1, record.players.end(), *player) == record.players.end());
        const RTMPConnection* const conn = get_connection(*player);
        CHECK(conn != nullptr && conn->fd >= 0);
        CHECK(conn->stream_mode == "play" && conn->stream_name == name);
    }
}

void check_connection(RTMPConnection& conn, std::size_t slot) {
    CHECK(conn.conn_idx == slot);
    CHECK(conn.thread_init || !conn.connection_in.empty());
    CHECK(!conn.closing && !conn.closed);
    CHECK(conn.stream_mode.empty() || conn.stream_mode == "play" || conn.stream_mode == "publish");
    CHECK(conn.stream_mode.empty() == conn.stream_name.empty() || conn.stream_name.empty());
    if (!conn.stream_mode.empty()) {
        // A client that was refused has been dropped in the same pass.
        CHECK(!conn.app_name.empty());
        CHECK(is_valid_stream_name(conn.stream_name));
    }
    if (conn.stream_mode == "play" && !conn.stream_name.empty()) {
        const std::vector<std::size_t>& players = find_or_insert_stream(conn.stream_name).players;
        CHECK(std::count(players.begin(), players.end(), slot) == 1);
    }
    check_queues(conn);
    check_counters(conn);
    check_stream(conn.stream_name);
}

bool is_publisher_in_force(const RTMPConnection& conn) {
    return conn.stream_mode == "publish" &&
           find_or_insert_stream(conn.stream_name).publisher == conn.conn_idx;
}

// A publisher that loses its stream to another connection is dropped. A stream whose record was removed has
// no publisher.
void check_takeover(const RTMPConnection& conn, const Watched& watch) {
    if (watch.publisher_in_force && !is_publisher_in_force(conn)) {
        CHECK(conn.close_requested || find_or_insert_stream(conn.stream_name).publisher == NO_CONNECTION);
    }
}

// Notes the media that has arrived since the last call.
void note_input(RTMPConnection& conn, Watched& watch) {
    for (std::size_t i = watch.waiting_in; i < conn.connection_in.size(); ++i) {
        const RTMP_Packet& pkt = conn.connection_in[i];
        if (is_media(pkt)) {
            watch.steady = watch.steady && pkt.chunk.timestamp >= watch.newest_timestamp &&
                           pkt.chunk.timestamp < 0x80000000;
            watch.newest_timestamp = pkt.chunk.timestamp;
        }
    }
}

void watch_before_pass() {
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        RTMPConnection* const conn = get_connection(i);
        Watched& watch = watched[i];
        if (conn == nullptr) {
            watch = {};
            continue;
        }
        if (watch.fd != conn->fd) {
            watch = {};
            watch.fd = conn->fd;
        }
        note_input(*conn, watch);
        watch.close_requested = conn->close_requested;
        watch.waiting_out = conn->connection_out.size();
        watch.publisher_in_force = is_publisher_in_force(*conn);
        if (conn->stream_mode == "play" && publisher_fd_of(conn->stream_name) != watch.publisher_fd) {
            watch.publisher_fd = publisher_fd_of(conn->stream_name);
            watch.last_output = 0;
        }
    }
}

// A player's timestamps never go back as long as its publisher's do not.
void check_output(RTMPConnection& conn, Watched& watch) {
    if (conn.stream_mode != "play" || publisher_fd_of(conn.stream_name) != watch.publisher_fd ||
        watch.publisher_fd == -1) {
        return;
    }
    const Watched& publisher = watched[find_or_insert_stream(conn.stream_name).publisher];
    for (std::size_t i = watch.waiting_out; i < conn.connection_out.size(); ++i) {
        const RTMP_Packet& pkt = conn.connection_out[i];
        if (is_media(pkt)) {
            CHECK(!publisher.steady || pkt.chunk.timestamp >= watch.last_output);
            watch.last_output = pkt.chunk.timestamp;
        }
    }
}

void check_after_pass() {
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        RTMPConnection* const conn = get_connection(i);
        Watched& watch = watched[i];
        if (conn == nullptr) {
            continue;
        }
        check_connection(*conn, i);
        if (conn->fd == watch.fd) {
            CHECK(!watch.close_requested);  // Requested before the pass, so done in it.
            check_output(*conn, watch);
            check_takeover(*conn, watch);
        }
        watch.waiting_in = conn->connection_in.size();
    }
}

// No client is refused while a slot is free.
void accept_client() {
    const FakeClient* const client = fake_system::waiting_client();
    const bool full = count_connections([](const RTMPConnection&) { return true; }) == MAX_CONNECTIONS;
    accept_connections();
    CHECK(client == nullptr || client->closed_by_server == full);
}

void run_pass() {
    fake_system::run_threads();
    watch_before_pass();
    accept_client();
    idle_all_connections();
    check_after_pass();
    fake_system::run_threads();
}

void pass_time(std::uint64_t us) {
    fake_clock_us += us;
    run_pass();
}

// --- whole sessions

void close_client(Client& client, unsigned how) {
    if (how % 2 == 0) {
        client.socket->end_sending();
    } else {
        client.socket->reset();
    }
}

void act_for_client(Action action, Client& client, InputBytes& input) {
    switch (action) {
        case Action::CONNECT_COMMAND:
            send_command(client, amf_string("connect") + amf_number(1) +
                                     amf_object({{"app", amf_string(pick(APPLICATIONS, input.u8()))}}));
            break;
        case Action::CREATE_STREAM:
            send_command(client, amf_string("createStream") + number_of(input.u8()) + amf_null());
            break;
        case Action::PUBLISH:
            send_command(client, amf_string("publish") + amf_number(5) + amf_null() +
                                     amf_string(pick(NAMES, input.u8())) + amf_string("live"));
            break;
        case Action::PLAY:
            send_command(client, amf_string("play") + amf_number(4) + amf_null() +
                                     amf_string(pick(NAMES, input.u8())));
            break;
        case Action::MEDIA:
            send_media(client, input);
            break;
        case Action::METADATA:
            send_message(client, MESSAGE_AMF0_DATA, 0,
                         amf_string("@setDataFrame") + amf_string("onMetaData") + metadata_of(input));
            break;
        case Action::CHUNK_SIZE: {
            const std::uint32_t chunk_size = pick(CHUNK_SIZES, input.u8());
            send_message(client, MESSAGE_SET_CHUNK_SIZE, 0, be32(chunk_size), 2, 0);
            client.chunk_size = std::max(chunk_size, 1U);
            break;
        }
        case Action::WINDOW:
            send_message(client, MESSAGE_WINDOW_ACK_SIZE, 0, be32(pick(WINDOWS, input.u8())), 2, 0);
            break;
        case Action::COMMAND:
            send_command(client, amf_string(pick(COMMANDS, input.u8())) + number_of(input.u8()) + amf_null() +
                                     amf_string("cam1"));
            break;
        case Action::PAYLOAD: {
            const std::uint8_t type = input.u8();
            const std::size_t bytes = input.u8();
            send_message(client, type % 2 == 0 ? MESSAGE_AMF0_COMMAND : MESSAGE_AMF0_DATA, 0,
                         input.take(bytes));
            break;
        }
        case Action::RAW: {
            const std::size_t bytes = input.u16();
            client.socket->send_to_server(input.take(bytes));
            break;
        }
        case Action::CLOSE:
            close_client(client, input.u8());
            break;
        case Action::READING: {
            const std::uint8_t bytes = input.u8();
            client.socket->read_at_most(bytes == 0xFF ? FakeClient::EVERYTHING : std::size_t{bytes} * bytes);
            break;
        }
        case Action::CROWD:
            // The shortest possible message, repeated on its own chunk stream.
            client.socket->send_to_server(std::string(std::size_t{input.u8()} * 8, '\xC5'));
            break;
        default:
            CHECK(false);
    }
}

// True if the action does not belong to a particular client.
bool act_for_all(Action action, Client& client, InputBytes& input) {
    switch (action) {
        case Action::CONNECT: {
            const unsigned how = input.u8();
            if (client.socket != nullptr && (how & STAYS_OPEN) == 0) {
                client.socket->end_sending();  // The previous client stops sending and is not used again.
            }
            connect_client(client, how % 8 != NO_HANDSHAKE);
            return true;
        }
        case Action::TIME: {
            const std::uint64_t centiseconds = input.u8();
            pass_time(centiseconds * centiseconds * PASS_US);
            return true;
        }
        case Action::LIST: {
            const unsigned choice = input.u8() % 3;
            list_connections(choice == 0 ? "" : choice == 1 ? "play" : "publish");
            return true;
        }
        case Action::DROP_ID: {
            const std::size_t id = input.u8();
            drop_by_id(id, pick(NAMES, input.u8()));
            return true;
        }
        case Action::DROP_NAME:
            drop_by_name(pick(NAMES, input.u8()));
            return true;
        case Action::CONTROL:
            ask_anything(input);
            return true;
        case Action::REFUSE_THREADS:
            fake_system::refuse_threads(input.u8() % 3);
            return true;
        default:
            return false;
    }
}

void run_action(InputBytes& input, std::size_t& clients_ever) {
    const unsigned what = input.u8();
    const auto action = static_cast<Action>((what & 0x7FU) % static_cast<unsigned>(Action::COUNT));
    Client& client = clients[input.u8() % CLIENTS];
    if (action == Action::CONNECT && ++clients_ever > MAX_CLIENTS_EVER) {
        return;
    }
    if (!act_for_all(action, client, input) && client.socket != nullptr) {
        act_for_client(action, client, input);
    }
    if ((what & AT_ONCE) == 0) {
        pass_time(PASS_US);
    }
}

// Everything that the server has sent must consist of whole messages, up to the place where it stopped.
void check_received(const FakeClient& client) {
    if (client.received.size() < HANDSHAKE_BYTES) {
        return;
    }
    ChunkParser parser(std::string_view(client.received).substr(HANDSHAKE_BYTES), ChunkParser::NO_LIMIT);
    ParsedMessage message;
    Parsed parsed = Parsed::MESSAGE;
    while (parsed == Parsed::MESSAGE) {
        parsed = parser.next(message);
    }
    CHECK(parsed == Parsed::END);
}

void shut_down() {
    server_shutdown();
    fake_clock_us += 10000000;
    for (std::size_t records = stream_count(); records != 0; --records) {
        CHECK(stream_count() == records);
        dispose_idle_streams();
    }
    CHECK(stream_count() == 0);
    for (int fd = FAKE_LISTENER_FD + 1; const FakeClient* client = fake_system::find_client(fd); ++fd) {
        check_received(*client);
    }
    fake_system::restart();
}

void start_up(unsigned options) {
    opt_no_def_ack = (options & OPTION_NO_DEFAULT_ACKNOWLEDGEMENT) != 0;
    opt_dbg_pkt = (options & OPTION_DUMP) != 0;
    fake_system::stop_at_prints((options & OPTION_STOP_AT_PRINTS) != 0);
    listen_fd = FAKE_LISTENER_FD;
    connections_free_scan = 0;
    fake_clock_us = START_US;
    watched = {};
    clients = {};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // The operator's unknown requests are dumped there.
    stderr = std::fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    InputBytes input(data, size);
    start_up(input.u8());
    std::size_t clients_ever = 0;
    for (std::size_t actions = 0; actions < MAX_ACTIONS && !input.empty(); ++actions) {
        run_action(input, clients_ever);
    }
    shut_down();
    return 0;
}

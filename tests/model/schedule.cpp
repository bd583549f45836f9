#include "tests/model/schedule.h"

#include <array>
#include <map>
#include <random>

#include "tests/support/amf_bytes.h"

using reference::Metadata;
using reference::Received;
using reference::Request;

namespace {

class Random {
  public:
    explicit Random(std::uint64_t seed) : bits(seed) {}

    std::size_t below(std::size_t end) { return static_cast<std::size_t>(bits() % end); }
    bool percent(unsigned chance) { return below(100) < chance; }
    template <typename Value, std::size_t N>
    const Value& one_of(const std::array<Value, N>& values) {
        return values[below(N)];
    }

  private:
    std::mt19937_64 bits;
};

constexpr std::uint64_t MS = 1000;
constexpr std::uint64_t SECOND = 1000 * MS;
constexpr std::uint64_t WRAP = 0x100000000ULL * MS;  // of 32-bit milliseconds
constexpr std::size_t MOST_CLIENTS = 8;

// Times between two passes: mostly the main loop's own, then those close to a limit.
constexpr std::array<std::uint64_t, 24> WAITS{0,
                                              0,
                                              1,
                                              999,
                                              1000,
                                              1001,
                                              5 * MS,
                                              9999,
                                              10001,
                                              20 * MS,
                                              40 * MS,
                                              100 * MS,
                                              250 * MS,
                                              SECOND,
                                              2500 * MS - 1,
                                              2500 * MS,
                                              2500 * MS + 1,
                                              3500 * MS - 1,
                                              3500 * MS,
                                              5 * SECOND - 1,
                                              5 * SECOND,
                                              5 * SECOND + 1,
                                              3600 * SECOND,
                                              WRAP - 10 * MS};

// The last one is 4 s before the wrap, so that a publisher may stall and be replaced before it.
constexpr std::array<std::uint32_t, 14> FIRST_TIMESTAMPS{
    0,          0,          0,          1,          5000,       0xFFFFFA,   0xFFFFFF,
    0x7FFFFFF0, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFF, 0xFFFF0000, 0xFFFFF000, 0xFFFFF000};

// The difference of a message's timestamp from the previous one.
constexpr std::array<std::int64_t, 24> TIMESTAMP_STEPS{
    0,   0,  1,   10,  10,   10,   20,   20,   40,    40,      40,       100,
    250, -1, -10, -40, 1000, 2500, 5000, 5001, -5001, 3600000, -3600000, 0x80000000LL};

const std::array<std::string, 4> STREAM_NAMES{"a", "b", "cam_1", ""};
const std::map<Request, const char*> COMMANDS{
    {Request::CREATE_STREAM, "createStream"}, {Request::PUBLISH, "publish"}, {Request::PLAY, "play"}};
constexpr std::array<Request, 3> ANY_COMMAND{Request::CREATE_STREAM, Request::PUBLISH, Request::PLAY};

// 0: absent.
constexpr std::array<std::uint32_t, 8> WIDTHS{0, 640, 640, 640, 640, 640, 1280, 2147483647};
constexpr std::array<std::uint32_t, 6> HEIGHTS{0, 360, 360, 360, 720, 1};
constexpr std::array<std::uint32_t, 8> AUDIO_CODECS{0, 0, 0, 0, 10, 10, 2, 1};
constexpr std::array<std::uint32_t, 8> VIDEO_CODECS{0, 0, 0, 0, 7, 7, 2, 12};

const std::array<std::string, 10> AUDIO_PAYLOADS{
    std::string("\xAF\x00\x12\x10", 4), "\xAF\x01", "\xAF\x01", "\xAF\x01", "\x2F\xFF",
    std::string("\x2F\x00", 2),         "",         "\xAF",     "\x2F",     std::string("\xAF\x00", 2)};
const std::array<std::string, 16> VIDEO_PAYLOADS{std::string("\x17\x00\x00\x00\x00\x01\x64", 7),
                                                 "\x17\x01",
                                                 "\x27\x01",
                                                 "\x27\x01",
                                                 std::string("\x27\x00", 2),
                                                 "\x22\x01",
                                                 std::string("\x12\x00", 2),
                                                 "\x90hvc1",
                                                 "\x91hvc1",
                                                 std::string("\x97\x00", 2),
                                                 "\x97\x01",
                                                 "\x80\x01",
                                                 "",
                                                 "\x17",
                                                 "\x90",
                                                 std::string("\x00\x00", 2)};

struct Client {
    std::uint32_t connection = 0;
    bool publishes = false;
    std::uint32_t timestamp = 0;
    unsigned steady_percent = 0;  // share of its media in one codec
    bool mp3 = false, h263 = false;
    bool on_own_stream = false;
};

// Draws one schedule.
class Generator {
  public:
    explicit Generator(std::uint64_t seed) : random(seed) { schedule.seed = seed; }

    Schedule draw();

  private:
    void join();
    void leave();
    void one_action();
    void media(Client& client);
    void metadata(Client& client);
    void command(const Client& client, Request request);
    void receive(const Client& client, const Received& received, bool on_own_stream);
    Action& add(Action::Kind kind, std::uint32_t connection);
    std::string media_payload(const Client& client, bool video);
    const std::string& stream_name();
    Client& any_client() { return clients[random.below(clients.size())]; }
    Client& any_publisher();

    Random random;
    Schedule schedule;
    std::vector<Client> clients;
    std::uint32_t joined = 0;
    std::uint16_t serial = 0;
    // Properties of the schedule.
    unsigned plain_wait_percent = 0;
    unsigned odd_percent = 0;
    std::size_t names = 1;
};

Action& Generator::add(Action::Kind kind, std::uint32_t connection) {
    Action& action = schedule.actions.emplace_back();
    action.kind = kind;
    action.connection = connection;
    return action;
}

void Generator::receive(const Client& client, const Received& received, bool on_own_stream) {
    Action& action = add(Action::Kind::RECEIVE, client.connection);
    action.received = received;
    action.on_own_stream = on_own_stream;
}

void Generator::command(const Client& client, Request request) {
    const std::string& name = stream_name();
    Bytes payload = amf_string(COMMANDS.at(request)) + amf_number(reference::TRANSACTION_ID) + amf_null();
    if (request != Request::CREATE_STREAM) {
        payload += amf_string(name);
    }
    if (request == Request::PUBLISH) {
        payload += amf_string("live");
    }
    receive(client, {.request = request, .message = {20, 0, 3, 0, payload}, .name = name}, false);
}

const std::string& Generator::stream_name() {
    return random.percent(1) ? STREAM_NAMES.back() : STREAM_NAMES[random.below(names)];
}

void Generator::join() {
    Client client;
    client.connection = joined++;
    client.publishes = clients.empty() || random.percent(45);
    client.timestamp = random.one_of(FIRST_TIMESTAMPS);
    client.steady_percent = random.percent(70) ? 97 : 60;
    client.mp3 = random.percent(15);
    client.h263 = random.percent(15);
    client.on_own_stream = random.percent(50);
    add(Action::Kind::JOIN, client.connection);
    if (random.percent(80)) {
        command(client, Request::CREATE_STREAM);
    }
    if (!random.percent(2)) {
        command(client, client.publishes ? Request::PUBLISH : Request::PLAY);
    }
    if (clients.size() == MOST_CLIENTS) {
        clients.erase(clients.begin());
    }
    clients.push_back(client);
}

void Generator::leave() {
    const std::size_t idx = random.below(clients.size());
    const std::uint32_t connection = clients[idx].connection;
    const bool reader_ends = random.percent(60);
    if (reader_ends) {
        add(Action::Kind::READER_ENDS, connection);
    }
    if (!reader_ends || random.percent(50)) {
        add(Action::Kind::DROP, connection);
    }
    if (random.percent(80)) {
        clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(idx));
    }
}

Client& Generator::any_publisher() {
    Client* found = &any_client();
    for (std::size_t tries = 0; tries < 4 && !found->publishes; ++tries) {
        found = &any_client();
    }
    return *found;
}

std::string Generator::media_payload(const Client& client, bool video) {
    std::string payload;
    if (!random.percent(client.steady_percent)) {
        payload = video ? random.one_of(VIDEO_PAYLOADS) : random.one_of(AUDIO_PAYLOADS);
    } else if (video) {
        payload = client.h263 ? VIDEO_PAYLOADS[5] : VIDEO_PAYLOADS[random.below(5)];
    } else {
        payload = client.mp3 ? AUDIO_PAYLOADS[4] : AUDIO_PAYLOADS[random.below(4)];
    }
    if (payload.size() > 1) {
        ++serial;
        payload += static_cast<char>(serial >> 8);
        payload += static_cast<char>(serial);
        if (random.percent(3)) {
            payload.resize(14 + random.below(22), '~');
        }
    }
    return payload;
}

void Generator::media(Client& client) {
    const bool video = random.percent(50);
    client.timestamp += static_cast<std::uint32_t>(random.percent(75) ? TIMESTAMP_STEPS[random.below(12)]
                                                                      : random.one_of(TIMESTAMP_STEPS));
    // A first timestamp of 0 leaves the base of pacing unset, so the next may be anything.
    if (random.percent(client.timestamp == 0 ? 20 : 1)) {
        client.timestamp = random.one_of(FIRST_TIMESTAMPS);
    }
    const std::uint8_t type = video ? 9 : 8;
    const std::uint32_t message_stream = random.percent(97) ? 1 : 2;
    receive(
        client,
        {.message = {type, client.timestamp, video ? 6U : 4U, message_stream, media_payload(client, video)}},
        client.on_own_stream);
}

void Generator::metadata(Client& client) {
    Metadata metadata{.serial = ++serial};
    // Mostly the same metadata, because otherwise its players would soon be dropped.
    const bool plain = random.percent(60);
    metadata.width = plain ? 640 : random.one_of(WIDTHS);
    metadata.height = plain ? 360 : random.one_of(HEIGHTS);
    metadata.codec_id = {plain ? 0 : random.one_of(AUDIO_CODECS), plain ? 0 : random.one_of(VIDEO_CODECS)};
    const Bytes payload = amf_string("@setDataFrame") + amf_string("onMetaData") + metadata.encoded();
    receive(client,
            {.request = Request::SET_METADATA, .message = {18, 0, 4, 1, payload}, .metadata = metadata},
            false);
}

void Generator::one_action() {
    const std::size_t choice = random.below(100);
    if (clients.empty() || choice < 12) {
        join();
    } else if (choice < 16) {
        leave();
    } else if (choice < 25) {
        metadata(any_publisher());
    } else if (choice < 25 + odd_percent) {
        command(any_client(), random.one_of(ANY_COMMAND));
    } else {
        media(any_publisher());
    }
}

Schedule Generator::draw() {
    schedule.start_us = random.percent(95) ? 1000 * SECOND + random.below(SECOND) : random.below(6 * SECOND);
    plain_wait_percent = random.percent(50) ? 80 : 30;
    odd_percent = random.percent(20) ? 10 : 1;
    names = random.percent(70) ? 1 : 3;
    for (std::size_t i = random.below(5); i > 0; --i) {
        join();
    }
    for (std::size_t passes = 10 + random.below(26); passes > 0; --passes) {
        const std::size_t messages = random.percent(5) ? random.below(9) : random.below(4);
        for (std::size_t i = 0; i < messages; ++i) {
            one_action();
        }
        add(Action::Kind::PASS, 0).wait_us =
            random.percent(plain_wait_percent) ? 10 * MS : random.one_of(WAITS);
    }
    return std::move(schedule);
}

}  // namespace

Schedule make_schedule(std::uint64_t seed) {
    return Generator(seed).draw();
}

std::string shown(const Action& action) {
    static constexpr std::array<const char*, 4> KINDS{" joins", " sends ", ": its reader ends",
                                                      " is to be dropped"};
    if (action.kind == Action::Kind::PASS) {
        return std::to_string(action.wait_us) + " us pass; the main loop runs";
    }
    const std::string text =
        "connection " + std::to_string(action.connection) + KINDS[static_cast<std::size_t>(action.kind)];
    return action.kind == Action::Kind::RECEIVE
               ? text + (action.on_own_stream ? "on its own stream " : "") + shown(action.received.message)
               : text;
}

std::string shown(const reference::Message& message) {
    return "type " + std::to_string(message.type) + " timestamp " + std::to_string(message.timestamp) +
           " chunk stream " + std::to_string(message.chunk_stream_id) + " message stream " +
           std::to_string(message.message_stream_id) + " payload " + to_hex(message.payload);
}

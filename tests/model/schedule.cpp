#include "tests/model/schedule.h"

#include <array>
#include <limits>

#include "tests/support/amf_bytes.h"

using reference::Metadata;
using reference::Received;
using reference::Request;

namespace {

constexpr std::uint64_t mixed(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15ULL;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ULL;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBULL;
    return value ^ (value >> 31);
}

class Random {
  public:
    explicit Random(std::uint64_t seed) : state(mixed(seed)) {}

    std::uint64_t bits() { return mixed(state++); }
    std::size_t below(std::size_t end) { return bits() % end; }
    bool percent(unsigned chance) { return below(100) < chance; }
    template <typename Value, std::size_t N>
    const Value& one_of(const std::array<Value, N>& values) {
        return values[below(N)];
    }

  private:
    std::uint64_t state;
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

constexpr double NAN_NUMBER = std::numeric_limits<double>::quiet_NaN();

// A missing member is a string of one blank; see member_of().
const Metadata::Value MISSING = std::string(" ");

const std::array<Metadata::Value, 12> SIZES{MISSING, 640.0, 640.0, 640.0,      1280.0, 1280.4,
                                            719.5,   0.4,   -5.0,  NAN_NUMBER, 1e300,  std::string("640")};
const std::array<Metadata::Value, 8> OTHER_SIZES{MISSING, 360.0, 360.0,        720.0,
                                                 0.5,     0.0,   2147483647.0, 2147483648.0};
const std::array<Metadata::Value, 14> AUDIO_CODECS{
    MISSING,      MISSING,      MISSING,      10.0,       10.0, 2.0,    std::string("mp4a"),
    1836069985.0, 4294967295.0, 4294967306.0, NAN_NUMBER, -1.0, -1e300, 0.0};
const std::array<Metadata::Value, 14> VIDEO_CODECS{
    MISSING,      MISSING, MISSING, 7.0,          7.4,          2.0,          std::string("avc1"),
    1752589105.0, 0.49,    0.5,     2147483648.0, 4294967295.4, 4294967295.5, -0.5};

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
    void odd_message(Client& client);
    void pass();
    void receive(const Client& client, Request request, std::uint8_t type, std::string name = {});
    Action& add(Action::Kind kind, std::uint32_t connection);
    std::string media_payload(const Client& client, bool video);
    const std::string& stream_name();
    Metadata random_metadata();
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

void Generator::receive(const Client& client, Request request, std::uint8_t type, std::string name) {
    Action& action = add(Action::Kind::RECEIVE, client.connection);
    Received& received = action.received;
    received.request = request;
    received.name = std::move(name);
    received.message.type = type;
    received.message.chunk_stream_id =
        random.percent(90) ? 3 : 64 + static_cast<std::uint32_t>(random.below(9));
    received.message.message_stream_id = static_cast<std::uint32_t>(random.below(2));
    received.transaction_id = static_cast<double>(random.below(9));
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
    add(Action::Kind::JOIN, client.connection).admitted = !random.percent(1);
    if (random.percent(80)) {
        receive(client, Request::CREATE_STREAM, 20);
    }
    if (!random.percent(2)) {
        receive(client, client.publishes ? Request::PUBLISH : Request::PLAY, 20,
                random.percent(1) ? "a-b" : stream_name());
    }
    if (clients.size() == MOST_CLIENTS) {
        clients.erase(clients.begin());
    }
    clients.push_back(client);
}

void Generator::leave() {
    const std::size_t idx = random.below(clients.size());
    const Client client = clients[idx];
    const std::size_t way = random.below(10);
    if (way < 5) {
        add(Action::Kind::READER_ENDS, client.connection);
    } else if (way < 7) {
        add(Action::Kind::WRITER_ENDS, client.connection);
    } else if (way < 9) {
        add(Action::Kind::DROP, client.connection);
    } else {
        receive(client, Request::DELETE_STREAM, 20);
    }
    if (way < 3) {
        add(Action::Kind::DROP, client.connection);
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
    receive(client, Request::MEDIA, video ? 9 : 8);
    Action& action = schedule.actions.back();
    action.on_own_stream = client.on_own_stream;
    reference::Message& message = action.received.message;
    message.timestamp = client.timestamp;
    message.chunk_stream_id = video ? 6 : 4;
    message.message_stream_id = random.percent(97) ? 1 : 2;
    message.payload = media_payload(client, video);
}

Metadata Generator::random_metadata() {
    Metadata metadata;
    const std::size_t kind = random.below(20);
    metadata.kind = kind == 0   ? Metadata::Kind::NUMBER
                    : kind == 1 ? Metadata::Kind::NOTHING
                    : kind < 10 ? Metadata::Kind::OBJECT
                                : Metadata::Kind::ECMA_ARRAY;
    metadata.number = 7;
    const auto add_member = [&](const char* key, const Metadata::Value& value) {
        if (value != MISSING) {
            metadata.members.emplace(key, value);
        }
    };
    // Mostly the same metadata, because otherwise its players would soon be dropped.
    const bool plain = random.percent(60);
    add_member("width", plain ? SIZES[1] : random.one_of(SIZES));
    add_member("height", plain ? OTHER_SIZES[1] : random.one_of(OTHER_SIZES));
    add_member("audiocodecid", plain ? AUDIO_CODECS[random.below(4)] : random.one_of(AUDIO_CODECS));
    add_member("videocodecid", plain ? VIDEO_CODECS[random.below(4)] : random.one_of(VIDEO_CODECS));
    add_member("serial", static_cast<double>(++serial));
    return metadata;
}

void Generator::metadata(Client& client) {
    receive(client, Request::SET_METADATA, 18);
    schedule.actions.back().received.metadata = random_metadata();
}

void Generator::odd_message(Client& client) {
    switch (random.below(13)) {
        case 0:
            return receive(client, Request::BARE_METADATA, 18);
        case 1:
            return receive(client, Request::SET_OTHER, 18, "onCuePoint");
        case 2:
            return receive(client, Request::SET_NOTHING, 18);
        case 3:
            return receive(client, Request::EMPTY_DATA, 18);
        case 4:
            return receive(client, Request::OTHER_TYPE, 4);
        case 5:
            return receive(client, Request::EMPTY_COMMAND, 20);
        case 6:
            return receive(client, Request::STREAM_LENGTH, 20);
        case 7:
            return receive(client, Request::RELEASE_STREAM, 20);
        case 8:
            return receive(client, Request::CREATE_STREAM, 20);
        case 9:
            return receive(client, Request::UNKNOWN_COMMAND, 20, "pause");
        case 10:
            return receive(client, Request::PUBLISH_RECORD, 20, stream_name());
        case 11:
            return receive(client, Request::PLAY, 20, stream_name());
        default:
            return receive(client, Request::PUBLISH, 20, stream_name());
    }
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
        odd_message(any_client());
    } else {
        media(any_publisher());
    }
}

void Generator::pass() {
    add(Action::Kind::PASS, 0).wait_us = random.percent(plain_wait_percent) ? 10 * MS : random.one_of(WAITS);
}

Schedule Generator::draw() {
    schedule.start_us = random.percent(95) ? 1000 * SECOND + random.below(SECOND) : random.below(6 * SECOND);
    schedule.first_slot = random.percent(90) ? 0 : 120 + random.below(8);
    plain_wait_percent = random.percent(50) ? 80 : 30;
    odd_percent = random.percent(20) ? 10 : 1;
    names = random.percent(70) ? 1 : 3;
    const std::size_t wanted = 10 + random.below(26);
    schedule.actions.reserve(3 * wanted + 8);

    for (std::size_t i = random.below(5); i > 0; --i) {
        join();
    }
    for (std::size_t done = 0; done < wanted; ++done) {
        const std::size_t messages = random.percent(5) ? random.below(9) : random.below(4);
        for (std::size_t i = 0; i < messages; ++i) {
            one_action();
        }
        pass();
    }
    return std::move(schedule);
}

std::string stream_command(const Received& received, const char* name) {
    return amf_string(name) + amf_number(received.transaction_id) + amf_null();
}

// Uses an order of members different from the stored one.
std::string metadata_bytes(const Metadata& metadata) {
    if (!metadata.has_members()) {
        return metadata.encoded();
    }
    AmfMembers members;
    for (auto member = metadata.members.rbegin(); member != metadata.members.rend(); ++member) {
        const double* const number = std::get_if<double>(&member->second);
        members.emplace_back(member->first, number != nullptr
                                                ? amf_number(*number)
                                                : amf_string(std::get<std::string>(member->second)));
    }
    return metadata.kind == Metadata::Kind::OBJECT
               ? amf_object(members)
               : amf_ecma_array(static_cast<std::uint32_t>(members.size()), members);
}

}  // namespace

Schedule make_schedule(std::uint64_t seed) {
    return Generator(seed).draw();
}

std::uint32_t random_number(std::uint64_t seed, std::uint64_t draw) {
    const std::uint64_t bits = mixed(seed ^ mixed(draw));
    return bits % 16 == 0 ? 0 : static_cast<std::uint32_t>(bits >> 33);
}

std::string encoded(const Received& received) {
    const Bytes setter = amf_string("@setDataFrame");
    switch (received.request) {
        case Request::MEDIA:
            return received.message.payload;
        case Request::CREATE_STREAM:
            return stream_command(received, "createStream");
        case Request::PUBLISH:
            return stream_command(received, "publish") + amf_string(received.name) + amf_string("live");
        case Request::PUBLISH_RECORD:
            return stream_command(received, "publish") + amf_string(received.name) + amf_string("record");
        case Request::PLAY:
            return stream_command(received, "play") + amf_string(received.name);
        case Request::RELEASE_STREAM:
            return stream_command(received, "releaseStream") + amf_string("a");
        case Request::STREAM_LENGTH:
            return stream_command(received, "getStreamLength") + amf_string("a");
        case Request::DELETE_STREAM:
            return stream_command(received, "deleteStream") + amf_number(1);
        case Request::UNKNOWN_COMMAND:
            return stream_command(received, received.name.c_str());
        case Request::SET_METADATA:
            return setter + amf_string("onMetaData") + metadata_bytes(received.metadata);
        case Request::BARE_METADATA:
            return amf_string("onMetaData") + amf_null();
        case Request::SET_OTHER:
            return setter + amf_string(received.name) + amf_null();
        case Request::SET_NOTHING:
            return setter;
        case Request::OTHER_TYPE:
            return std::string(6, '\0');
        case Request::EMPTY_COMMAND:
        case Request::EMPTY_DATA:
            return {};
    }
    return {};
}

std::string shown(const Action& action) {
    static const std::array<const char*, 16> REQUESTS{
        "media",           "createStream", "publish",    "publish record", "play",         "releaseStream",
        "getStreamLength", "deleteStream", "unknown",    "empty command",  "set metadata", "bare metadata",
        "set other",       "set nothing",  "empty data", "other type"};
    const std::string who = "connection " + std::to_string(action.connection);
    switch (action.kind) {
        case Action::Kind::JOIN:
            return who + (action.admitted ? " joins" : " joins without connect");
        case Action::Kind::READER_ENDS:
            return who + ": its reader ends";
        case Action::Kind::WRITER_ENDS:
            return who + ": its writer ends";
        case Action::Kind::DROP:
            return who + ": is to be dropped";
        case Action::Kind::PASS:
            return std::to_string(action.wait_us) + " us pass; the main loop runs";
        case Action::Kind::RECEIVE:
            break;
    }
    const Received& received = action.received;
    const reference::Message& message = received.message;
    return who + " sends " + REQUESTS[static_cast<std::size_t>(received.request)] + " '" + received.name +
           "' type " + std::to_string(message.type) + " timestamp " + std::to_string(message.timestamp) +
           " chunk stream " + std::to_string(message.chunk_stream_id) + " message stream " +
           (action.on_own_stream ? "its own" : std::to_string(message.message_stream_id)) + " payload " +
           to_hex(encoded(received));
}

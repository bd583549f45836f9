#include "tests/fault/scripted_session.h"

#include <algorithm>
#include <functional>
#include <memory>

#include "tests/support/amf_bytes.h"
#include "tests/support/control_peer.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::uint32_t TIMESTAMP_MS = 1000;  // The same for all, so nothing is held.
constexpr std::size_t CONTROL_PEERS = 3;
constexpr Milliseconds ACKNOWLEDGEMENT_WAIT = scaled(Milliseconds{5000});
constexpr Milliseconds END_WAIT = scaled(Milliseconds{2000});
// The server's descriptors without clients: the standard three, the listener, the control socket.
constexpr std::ptrdiff_t FDS_AT_REST = 5;

const std::array<std::pair<std::string, Bytes>, 7> MEDIA{{{"audio header", aac_header()},
                                                          {"video header", avc_header()},
                                                          {"key frame", avc_key_frame(1)},
                                                          {"frame", avc_inter_frame(2)},
                                                          {"second audio", aac_frame(3)},
                                                          {"second frame", avc_inter_frame(4)},
                                                          {"last frame", avc_inter_frame(5)}}};

const Bytes& media(const std::string& name) {
    return std::find_if(MEDIA.begin(), MEDIA.end(), [&](const auto& known) { return known.first == name; })
        ->second;
}

std::string in_short(const RtmpMessage& message) {
    for (const auto& [name, payload] : MEDIA) {
        if (message.payload == payload) {
            return name;
        }
    }
    if (message.type == MSG_SET_CHUNK_SIZE) {
        return "chunk size";
    }
    if (message.type == MSG_DATA && message.payload.starts_with(amf_string("onMetaData"))) {
        return "metadata";
    }
    if (message.type == MSG_COMMAND && message.payload.starts_with(amf_string("onStatus"))) {
        return "status";
    }
    if (message.type == MSG_COMMAND && message.payload.starts_with(amf_string("_result"))) {
        return "result";
    }
    return "type " + std::to_string(message.type) + ": " + to_hex(message.payload.substr(0, 32));
}

const char* stream_of(std::size_t client) {
    return is_first_stream(client) ? "cam1" : "cam2";
}

// A client of the session, until the server closes it.
class Guest {
  public:
    explicit Guest(ClientStory& written) : story(written) { client.note_message_ends(story.to_acknowledge); }

    // Does nothing once the client is gone.
    void act(const std::function<void(RtmpClient&)>& step) {
        if (gone) {
            return;
        }
        try {
            step(client);
        } catch (const TestFailure&) {
            if (!closes()) {
                throw;
            }
            gone = true;
            story.dropped = true;
        }
    }

    // Sends a command and waits for its reply. Then everything sent before has been handled, and everything
    // sent to this client before has arrived.
    void ask() {
        act([this](RtmpClient& rtmp) {
            const double id = FIRST_QUESTION_ID + questions++;
            const Bytes answer = amf_string("_result") + amf_number(id) + amf_null();
            rtmp.send_command(amf_string("releaseStream") + amf_number(id) + amf_null());
            for (bool answered = false; !answered;) {
                const RtmpMessage message = rtmp.read_any_message();
                answered = message.payload == answer;
                note(message, answered ? "answer" : in_short(message));
            }
        });
    }

    // Waits for the acknowledgement of its last message. If none comes, the wait ends at its limit.
    void wait_for_acknowledgements() {
        act([this](RtmpClient& rtmp) {
            const TimePoint deadline = SteadyClock::now() + ACKNOWLEDGEMENT_WAIT;
            while (story.acknowledged.empty() || story.acknowledged.back() != story.to_acknowledge.back()) {
                const auto message = rtmp.try_read_message(Milliseconds{poll_timeout_ms(deadline)});
                if (message) {
                    note(*message, in_short(*message));
                } else if (rtmp.closed_by_server()) {
                    throw TestFailure("the server closed the connection before it acknowledged everything");
                } else {
                    return;
                }
            }
        });
    }

    // Waits until the server has closed the connection.
    void wait_until_dropped() {
        if (!gone && !closes()) {
            throw TestFailure("the server did not drop a client that it was told to drop");
        }
        gone = true;
    }

    void leave() {
        gone = true;
        client.close();
    }

    void note_handshake() { handshaken = true; }

  private:
    void note(const RtmpMessage& message, const std::string& name) {
        if (message.type == MSG_ACKNOWLEDGEMENT) {
            story.acknowledged.push_back(get_be32(message.payload));
        } else {
            story.received.push_back(name);
        }
    }

    // Whether the server closes the connection in time. Messages before that are kept.
    bool closes() {
        const TimePoint deadline = SteadyClock::now() + DEFAULT_WAIT;
        while (handshaken && !client.closed_by_server() && SteadyClock::now() < deadline) {
            const auto message = client.try_read_message(Milliseconds{poll_timeout_ms(deadline)});
            if (message) {
                note(*message, in_short(*message));
            }
        }
        while (!client.closed_by_server() && SteadyClock::now() < deadline) {
            try {
                (void)client.read_bytes(1, Milliseconds{poll_timeout_ms(deadline)});
            } catch (const TestFailure&) {
                // Closed or too late; the conditions above show which.
            }
        }
        return client.closed_by_server();
    }

    static constexpr double FIRST_QUESTION_ID = 100;

    ClientStory& story;
    RtmpClient client;
    double questions = 0;
    bool handshaken = false;
    bool gone = false;
};

class Session {
  public:
    Session(ServerProcess& process, SessionStory& written) : server(process), story(written) {}

    void play() {
        come();
        subscribe();
        publish();
        play_late();
        publish_more();
        list_and_drop();
        publish_to_the_end();
        leave();
    }

  private:
    Guest& guest(std::size_t client) { return *guests[client]; }

    void come() {
        for (std::size_t i = 0; i < SESSION_CLIENTS; ++i) {
            guests[i] = std::make_unique<Guest>(story.clients[i]);
        }
        for (const auto& one : guests) {
            one->act([&](RtmpClient& client) {
                (void)client.handshake();
                one->note_handshake();
            });
        }
    }

    void subscribe() {
        guest(FIRST_PLAYER).act([](RtmpClient& client) { client.set_chunk_size(4096); });
        for (const std::size_t player : {FIRST_PLAYER, SECOND_PLAYER}) {
            guest(player).act([&](RtmpClient& client) {
                client.send_connect("ombrex-output");
                client.send_create_stream();
                client.send_play(stream_of(player));
            });
        }
        guest(FIRST_PLAYER).ask();
        guest(SECOND_PLAYER).ask();
    }

    void publish() {
        guest(FIRST_PUBLISHER).act([](RtmpClient& client) { client.set_chunk_size(4096); });
        for (const std::size_t publisher : {FIRST_PUBLISHER, SECOND_PUBLISHER}) {
            guest(publisher).act([&](RtmpClient& client) {
                client.send_connect();
                client.send_create_stream();
                client.send_publish(stream_of(publisher));
                client.send_metadata(amf_object({{"width", amf_number(640)}, {"height", amf_number(360)}}));
                client.send_audio(TIMESTAMP_MS, media("audio header"));
                client.send_video(TIMESTAMP_MS, media("video header"));
                client.send_video(TIMESTAMP_MS, media("key frame"));
                client.send_video(TIMESTAMP_MS, media("frame"));
            });
        }
        guest(FIRST_PUBLISHER).ask();
        guest(SECOND_PUBLISHER).ask();
    }

    void play_late() {
        guest(LATE_PLAYER).act([](RtmpClient& client) {
            client.send_connect("ombrex-output");
            client.send_play("cam1");
        });
        guest(LATE_PLAYER).ask();
    }

    void publish_more() {
        for (const std::size_t publisher : {FIRST_PUBLISHER, SECOND_PUBLISHER}) {
            guest(publisher).act([](RtmpClient& client) {
                client.send_audio(TIMESTAMP_MS, media("second audio"));
                client.send_video(TIMESTAMP_MS, media("second frame"));
            });
        }
        guest(FIRST_PUBLISHER).ask();
        guest(SECOND_PUBLISHER).ask();
        for (const std::size_t player : {FIRST_PLAYER, SECOND_PLAYER, LATE_PLAYER}) {
            guest(player).ask();
        }
    }

    // Returns whether the drop was answered.
    bool ask_control_server(ControlPeer& peer) {
        ++story.control.peers;
        // Sent together, so one poll of the control socket answers all.
        if (!peer.try_send_bytes(control_request(1, "list connections") +
                                 control_request(2, "drop connection by stream name", {"cam1"}) +
                                 control_request(3, "hello"))) {
            return false;
        }
        try {
            // A reply may be lost; the next one reveals it.
            for (std::uint64_t answered = 0; answered < 2;) {
                const ControlReply reply = peer.read_reply();
                answered = reply.request_id;
                if (answered == 1) {
                    story.control.listed = reply.values("connection");
                } else if (answered == 2) {
                    story.control.dropped = reply.message;
                }
            }
        } catch (const TestFailure& failure) {
            if (std::string_view(failure.what()).find("closed") == std::string_view::npos) {
                throw;
            }
            return false;
        }
        return true;
    }

    bool control_socket_is_lost() const {
        return server.raw_text().find("Idle failed: ") != std::string::npos;
    }

    // Returns whether a client of the control socket got its reply. None does if the socket is lost.
    bool ask_control_server() {
        while (control_peers.size() < CONTROL_PEERS) {
            try {
                control_peers.emplace_back();
            } catch (const TestFailure&) {
                if (!control_socket_is_lost()) {
                    throw;
                }
                return false;
            }
            if (ask_control_server(control_peers.back())) {
                return true;
            }
        }
        return false;
    }

    void list_and_drop() {
        for (const std::size_t client : {FIRST_PUBLISHER, FIRST_PLAYER, LATE_PLAYER}) {
            guest(client).wait_for_acknowledgements();
        }
        if (!ask_control_server()) {
            story.control.peers = 0;
        }
        for (const std::size_t client : {FIRST_PUBLISHER, FIRST_PLAYER, LATE_PLAYER}) {
            if (story.control.peers == 0) {
                guest(client).leave();
            } else {
                guest(client).wait_until_dropped();
            }
        }
    }

    void publish_to_the_end() {
        guest(SECOND_PUBLISHER).act([](RtmpClient& client) {
            client.send_video(TIMESTAMP_MS, media("last frame"));
        });
        guest(SECOND_PUBLISHER).ask();
        guest(SECOND_PLAYER).ask();
    }

    void leave() {
        control_peers.clear();
        guest(SECOND_PUBLISHER).wait_for_acknowledgements();
        guest(SECOND_PLAYER).wait_for_acknowledgements();
        guest(SECOND_PUBLISHER).leave();
        guest(SECOND_PLAYER).leave();
        server.err().wait_for_count("Dropping connection", SESSION_CLIENTS);
        server.wait_for_thread_count(THREADS_AT_REST);
        (void)holds_within(END_WAIT, [this] {
            story.fds_left = static_cast<std::ptrdiff_t>(server.fd_count()) -
                             (control_socket_is_lost() ? FDS_AT_REST - 1 : FDS_AT_REST);
            return story.fds_left == 0;
        });
        (void)server.stop();
    }

    ServerProcess& server;
    SessionStory& story;
    std::array<std::unique_ptr<Guest>, SESSION_CLIENTS> guests;
    // They stay connected until there was time to answer their last request.
    std::vector<ControlPeer> control_peers;
};

}  // namespace

const Transcript& whole_transcript(std::size_t client) {
    static const std::array<Transcript, SESSION_CLIENTS> TRANSCRIPTS{{
        {"chunk size", "result", "result", "status", "answer", "answer"},
        {"chunk size", "result", "result", "status", "answer", "metadata", "audio header", "video header",
         "key frame", "frame", "second audio", "second frame", "answer"},
        {"result", "result", "status", "answer", "answer", "answer"},
        {"result", "result", "status", "answer", "metadata", "audio header", "video header", "key frame",
         "frame", "second audio", "second frame", "answer", "last frame", "answer"},
        {"result", "status", "metadata", "answer", "audio header", "second audio", "video header",
         "second frame", "answer"},
    }};
    return TRANSCRIPTS[client];
}

bool is_media(const std::string& received) {
    return received == "metadata" || std::any_of(MEDIA.begin(), MEDIA.end(),
                                                 [&](const auto& known) { return known.first == received; });
}

bool is_first_stream(std::size_t client) {
    return client != SECOND_PUBLISHER && client != SECOND_PLAYER;
}

bool is_player(std::size_t client) {
    return client != FIRST_PUBLISHER && client != SECOND_PUBLISHER;
}

SessionStory play_session(ServerProcess& server) {
    SessionStory story;
    try {
        Session(server, story).play();
    } catch (const TestFailure&) {
        // Either the server has ended, or it does not respond.
        if (!holds_within(END_WAIT, [&] { return !server.is_running(); })) {
            throw;
        }
    }
    if (!server.is_running()) {
        const ProgramEnd end = server.wait_for_exit();
        if (end.status != 0) {
            story.end = end;
        }
    }
    return story;
}

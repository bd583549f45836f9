#include "tests/model/comparison.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <string_view>

#include "core/connection.h"
#include "core/connection_table.h"
#include "relay/stream_registry.h"
#include "tests/support/fake_clock.h"
#include "tests/support/queued_payload.h"
#include "tests/support/silent_system.h"
#include "tests/support/wire_bytes.h"

namespace {

// The reader waits if this many messages of its client are queued.
constexpr std::size_t MOST_WAITING = 8;
constexpr int PRETENDED_FD = 1000;

bool same(const OutgoingPacket& pkt, const reference::Message& message) {
    return pkt.chunk.message_type_id == message.type && pkt.chunk.timestamp == message.timestamp &&
           pkt.chunk.stream_id == message.chunk_stream_id &&
           pkt.chunk.message_stream_id == message.message_stream_id && payload_of(pkt) == message.payload;
}

std::string shown(std::uint32_t type, std::uint32_t timestamp, std::uint32_t chunk_stream,
                  std::uint32_t message_stream, std::string_view payload) {
    return "    type " + std::to_string(type) + " timestamp " + std::to_string(timestamp) + " chunk stream " +
           std::to_string(chunk_stream) + " message stream " + std::to_string(message_stream) + " payload " +
           to_hex(payload) + "\n";
}

// Resets the server to its state before the first client, whatever the previous schedule left.
void start_server() {
    free_all_connections();
    fake_clock_us = std::numeric_limits<std::uint64_t>::max() / 2;
    while (stream_count() != 0) {
        dispose_idle_streams();
    }
    printed_text.clear();
}

class Comparison {
  public:
    explicit Comparison(const Schedule& a_schedule)
        : schedule(a_schedule),
          model([this] { return random_number(schedule.seed, model_draws++); }, schedule.first_slot) {
        start_server();
        connections_free_scan = schedule.first_slot;
        fake_clock_us = schedule.start_us;
        random_source = [this] { return random_number(schedule.seed, server_draws++); };
    }
    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    std::optional<std::string> run(std::string* all_text) {
        for (const Action& action : schedule.actions) {
            act(action);
            if (action.kind == Action::Kind::PASS) {
                compare_all();
                keep_text(all_text);
            }
            if (!differences.empty()) {
                return differences;
            }
        }
        free_all_connections();
        model.end(fake_clock_us);
        compare_all();
        keep_text(all_text);
        return differences.empty() ? std::nullopt : std::optional(differences);
    }

  private:
    void act(const Action& action) {
        if (action.kind == Action::Kind::JOIN) {
            join(action);
            return;
        }
        if (action.kind == Action::Kind::PASS) {
            fake_clock_us += action.wait_us;
            idle_all_connections();
            model.pass(fake_clock_us);
            return;
        }
        const auto slot = slots.find(action.connection);
        if (slot == slots.end()) {
            return;
        }
        RTMPConnection& real = *get_connection(slot->second);
        reference::Connection& expected = *model.at(slot->second);
        if (action.kind == Action::Kind::READER_ENDS) {
            real.thread_died = true;
            expected.reader_ended = true;
        } else if (action.kind == Action::Kind::WRITER_ENDS) {
            real.thread2_died = true;
            expected.writer_ended = true;
        } else if (action.kind == Action::Kind::DROP) {
            real.close_requested = true;
            expected.drop = true;
        } else {
            receive(action, real, expected);
        }
    }

    void join(const Action& action) {
        RTMPConnection* const real = new_connection(PRETENDED_FD, "192.0.2.7:50512");
        const std::optional<std::size_t> slot = model.join(action.admitted);
        if (real == nullptr || !slot || real->conn_idx != *slot) {
            differences += "the two give a new connection different slots\n";
            return;
        }
        if (action.admitted) {
            real->app_name = "ombrex-live";
        }
        slots[action.connection] = *slot;
    }

    static void receive(const Action& action, RTMPConnection& real, reference::Connection& expected) {
        if (expected.reader_ended || !expected.reader_runs || expected.in.size() >= MOST_WAITING) {
            return;
        }
        reference::Received received = action.received;
        reference::Message& message = received.message;
        if (action.on_own_stream) {
            message.message_stream_id = expected.stream_id;
        }
        const std::string payload = encoded(received);
        RTMP_Packet& pkt = real.connection_in.emplace_back();
        pkt.chunk.message_type_id = message.type;
        pkt.chunk.timestamp = message.timestamp;
        pkt.chunk.stream_id = message.chunk_stream_id;
        pkt.chunk.message_stream_id = message.message_stream_id;
        pkt.chunk.message_length = static_cast<std::uint32_t>(payload.size());
        if (!payload.empty() && pkt.chunk.message.allocate(static_cast<std::uint32_t>(payload.size()))) {
            std::memcpy(pkt.chunk.message.data, payload.data(), payload.size());
        }
        expected.in.push_back(std::move(received));
    }

    void compare_all() {
        if (printed_text != model.said) {
            differences += "printed by the server:\n" + printed_text + "and by the model:\n" + model.said;
        }
        std::erase_if(slots, [this](const auto& slot) { return model.at(slot.second) == nullptr; });
        for (std::size_t slot = 0; slot < reference::Server::SLOTS; ++slot) {
            RTMPConnection* const real = get_connection(slot);
            reference::Connection* const expected = model.at(slot);
            if ((real == nullptr) != (expected == nullptr)) {
                differences += "slot " + std::to_string(slot) + (real == nullptr ? " is free" : " is taken") +
                               ", and in the model it is not\n";
            } else if (real != nullptr) {
                compare_connection(slot, *real, *expected);
            }
        }
        compare_registry();
    }

    void compare_connection(std::size_t slot, RTMPConnection& real, reference::Connection& expected) {
        const auto differs = [&](const std::string& text) {
            differences += "slot " + std::to_string(slot) + ": " + text;
        };
        if (real.close_requested != expected.drop) {
            differs(real.close_requested ? "is to be closed, not so in the model\n"
                                         : "is not to be closed, in the model it is\n");
        }
        if (real.connection_in.size() != expected.in.size()) {
            differs(std::to_string(real.connection_in.size()) + " messages are held back, in the model " +
                    std::to_string(expected.in.size()) + "\n");
        }
        if (!std::equal(real.connection_out.begin(), real.connection_out.end(), expected.out.begin(),
                        expected.out.end(), same)) {
            std::string text = "is sent\n";
            for (const OutgoingPacket& pkt : real.connection_out) {
                text += shown(pkt.chunk.message_type_id, pkt.chunk.timestamp, pkt.chunk.stream_id,
                              pkt.chunk.message_stream_id, payload_of(pkt));
            }
            text += "  and in the model\n";
            for (const reference::Message& message : expected.out) {
                text += shown(message.type, message.timestamp, message.chunk_stream_id,
                              message.message_stream_id, message.payload);
            }
            differs(text);
        }
        real.connection_out.clear();
        expected.out.clear();
    }

    void compare_registry() {
        for (const auto& [name, expected] : model.streams) {
            const StreamRecord& real = find_or_insert_stream(name);
            const std::size_t publisher = expected.publisher.value_or(NO_CONNECTION);
            if (real.publisher != publisher || real.players != expected.players ||
                real.last_activity_us != expected.active_us) {
                differences += "stream '" + name + "' has another publisher, other players or another time\n";
            }
        }
        // A stream that only the model has was just inserted above with time 0, and is counted.
        if (stream_count() != model.streams.size()) {
            differences += std::to_string(stream_count()) + " streams, in the model " +
                           std::to_string(model.streams.size()) + "\n";
        }
    }

    void keep_text(std::string* all_text) {
        if (all_text != nullptr) {
            *all_text += model.said;
        }
        printed_text.clear();
        model.said.clear();
        // Not compared: the model does not dump.
        printed_dumps.clear();
    }

    const Schedule& schedule;
    std::uint64_t server_draws = 0;
    std::uint64_t model_draws = 0;
    reference::Server model;
    std::map<std::uint32_t, std::size_t> slots;  // by number of the connection in the schedule
    std::string differences;
};

}  // namespace

std::optional<std::string> compare(const Schedule& schedule, std::string* all_text) {
    return Comparison(schedule).run(all_text);
}

Schedule shortened(Schedule schedule) {
    for (std::size_t i = schedule.actions.size(); i-- > 0;) {
        Schedule candidate = schedule;
        candidate.actions.erase(candidate.actions.begin() + static_cast<std::ptrdiff_t>(i));
        if (compare(candidate)) {
            schedule = std::move(candidate);
        }
    }
    return schedule;
}

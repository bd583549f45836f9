#include "tests/model/comparison.h"

#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "core/connection.h"
#include "core/connection_table.h"
#include "core/limits.h"
#include "relay/stream_registry.h"
#include "tests/support/fake_clock.h"
#include "tests/support/queued_payload.h"
#include "tests/support/silent_system.h"

namespace {

// The reader waits if this many messages of its client are queued.
constexpr std::size_t MOST_WAITING = 8;
constexpr int PRETENDED_FD = 1000;

// Resets the server to its state before the first client, whatever the previous schedule left.
void start_server(const Schedule& schedule) {
    free_all_connections();
    fake_clock_us = std::numeric_limits<std::uint64_t>::max() / 2;
    while (stream_count() != 0) {
        dispose_idle_streams();
    }
    printed_text.clear();
    connections_free_scan = 0;
    fake_clock_us = schedule.start_us;
}

std::vector<reference::Message> take_queued(RTMPConnection& conn) {
    std::vector<reference::Message> messages;
    for (const OutgoingPacket& pkt : conn.connection_out) {
        messages.push_back({pkt.chunk.message_type_id, pkt.chunk.timestamp, pkt.chunk.stream_id,
                            pkt.chunk.message_stream_id, payload_of(pkt)});
    }
    conn.connection_out.clear();
    return messages;
}

std::string lines_of(const std::vector<reference::Message>& messages) {
    std::string text;
    for (const reference::Message& message : messages) {
        text += "    " + shown(message) + "\n";
    }
    return text;
}

class Comparison {
  public:
    explicit Comparison(const Schedule& schedule) : model(std::minstd_rand(seed_of(schedule))) {
        start_server(schedule);
        random_source = [draws = std::minstd_rand(seed_of(schedule))]() mutable {
            return static_cast<std::uint32_t>(draws());
        };
    }

    void act(const Action& action) {
        if (action.kind == Action::Kind::JOIN) {
            RTMPConnection& conn = *new_connection(PRETENDED_FD, "192.0.2.7:50512");
            conn.app_name = "ombrex-live";
            slots[action.connection] = conn.conn_idx;
            model.connections[conn.conn_idx];
        } else if (action.kind == Action::Kind::PASS) {
            pass(action.wait_us);
        } else if (const auto slot = slots.find(action.connection); slot != slots.end()) {
            act_on(action, *get_connection(slot->second), model.connections.at(slot->second));
        }
    }

    Outcome outcome;

  private:
    static std::uint32_t seed_of(const Schedule& schedule) {
        return static_cast<std::uint32_t>(schedule.seed);
    }

    static void act_on(const Action& action, RTMPConnection& real, reference::Connection& expected) {
        if (action.kind == Action::Kind::READER_ENDS) {
            real.thread_died = true;
            expected.reader_ended = true;
        } else if (action.kind == Action::Kind::DROP) {
            real.close_requested = true;
            expected.drop = true;
        } else if (!expected.reader_ended && expected.in.size() < MOST_WAITING) {
            receive(action, real, expected);
        }
    }

    static void receive(const Action& action, RTMPConnection& real, reference::Connection& expected) {
        reference::Message& message = expected.in.emplace_back(action.received).message;
        if (action.on_own_stream) {
            message.message_stream_id = expected.stream_id;
        }
        RTMP_Packet& pkt = real.connection_in.emplace_back();
        pkt.chunk.message_type_id = message.type;
        pkt.chunk.timestamp = message.timestamp;
        pkt.chunk.stream_id = message.chunk_stream_id;
        pkt.chunk.message_stream_id = message.message_stream_id;
        const auto length = static_cast<std::uint32_t>(message.payload.size());
        pkt.chunk.message_length = length;
        if (length != 0 && pkt.chunk.message.allocate(length)) {
            std::memcpy(pkt.chunk.message.data, message.payload.data(), length);
        }
    }

    void pass(std::uint64_t wait_us) {
        fake_clock_us += wait_us;
        idle_all_connections();
        model.pass(fake_clock_us);
        if (printed_text != model.said) {
            outcome.difference +=
                "printed by the server:\n" + printed_text + "and by the model:\n" + model.said;
        }
        for (std::size_t slot = 0; slot < MAX_CONNECTIONS; ++slot) {
            RTMPConnection* const real = get_connection(slot);
            const auto expected = model.connections.find(slot);
            if ((real != nullptr) != (expected != model.connections.end())) {
                outcome.difference += "slot " + std::to_string(slot) + " is free in one of the two only\n";
            } else if (real != nullptr) {
                compare_sent(slot, take_queued(*real), std::exchange(expected->second.out, {}));
            }
        }
        std::erase_if(slots, [this](const auto& slot) { return !model.connections.contains(slot.second); });
        outcome.printed += std::exchange(printed_text, {});
        model.said.clear();
        // Not compared: the model does not dump.
        printed_dumps.clear();
    }

    void compare_sent(std::size_t slot, const std::vector<reference::Message>& sent,
                      const std::vector<reference::Message>& expected) {
        if (sent != expected) {
            outcome.difference += "slot " + std::to_string(slot) + ": is sent\n" + lines_of(sent) +
                                  "  and in the model\n" + lines_of(expected);
        }
    }

    reference::Server model;
    std::map<std::uint32_t, std::size_t> slots;  // by number of the connection in the schedule
};

}  // namespace

Outcome compare(const Schedule& schedule) {
    Comparison comparison(schedule);
    for (const Action& action : schedule.actions) {
        comparison.act(action);
        if (!comparison.outcome.difference.empty()) {
            break;
        }
    }
    return std::move(comparison.outcome);
}

Schedule shortened(Schedule schedule) {
    for (std::size_t i = schedule.actions.size(); i-- > 0;) {
        Schedule candidate = schedule;
        candidate.actions.erase(candidate.actions.begin() + static_cast<std::ptrdiff_t>(i));
        if (!compare(candidate).difference.empty()) {
            schedule = std::move(candidate);
        }
    }
    return schedule;
}

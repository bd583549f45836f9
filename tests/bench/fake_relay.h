// A small relay that loses, duplicates, reorders, changes or delays frames at planned places, for each
// player. It proves that a load generator notices exactly that. It has one thread, and a port of the system's
// choice on the loopback.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/wire_bytes.h"

enum class Fault { LOSE, DOUBLE, SWAP, FLIP, DELAY };

struct FaultPlan {
    // By the number, from 1, of the frame among those for a player. SWAP sends the next one first.
    std::map<std::uint32_t, Fault> faults;
    // Frames with a larger payload are lost, from the tenth on.
    std::size_t most_frame_bytes = SIZE_MAX;
    // How far a delayed frame's send time is set back.
    std::uint64_t delay_us = 6000000;
};

class FakeRelay {
  public:
    explicit FakeRelay(FaultPlan fault_plan);
    ~FakeRelay();
    FakeRelay(const FakeRelay&) = delete;
    FakeRelay& operator=(const FakeRelay&) = delete;

    std::string address() const;

  private:
    struct Message {
        std::uint8_t type;
        std::uint32_t timestamp;
        Bytes payload;
    };
    struct Client {
        int fd = -1;
        Bytes input;
        bool is_greeted = false;
        bool is_handshaken = false;
        std::uint32_t input_chunk = 128;
        std::uint32_t output_chunk = 128;
        std::string plays;
        std::string publishes;
        std::uint32_t frames = 0;
        std::vector<Message> held_back;
    };

    void run();
    void accept_client();
    [[nodiscard]] bool read_from(Client& client);
    [[nodiscard]] bool take_handshake(Client& client) const;
    [[nodiscard]] bool take_message(Client& client);
    void handle(Client& client, const Message& message);
    void answer_command(Client& client, const Message& message);
    void relay(const Client& publisher, const Message& message);
    void relay_frame(Client& player, Message message) const;
    static void send_message(Client& client, const Message& message);

    const FaultPlan plan;
    int listener;
    std::uint16_t port = 0;
    std::vector<std::unique_ptr<Client>> clients;
    std::map<std::string, std::map<std::uint8_t, Message>> headers;
    std::atomic<bool> stop_requested{false};
    std::thread thread;
};

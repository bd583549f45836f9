#include "tests/segmentation/session.h"

#include <fstream>
#include <iterator>

#include "tests/support/amf_bytes.h"
#include "tests/support/test_failure.h"

namespace {

std::string recorded_bytes(const std::string& name) {
    std::ifstream file(std::string(V9_SESSIONS_PATH) + "/" + name + ".session", std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (bytes.size() <= C2_OFFSET + HANDSHAKE_BLOCK_BYTES) {
        throw TestFailure("there is no whole recording of a " + name);
    }
    return bytes;
}

// The player left when it had enough media; its last message says so, after a header of 8 bytes.
Session recorded_player() {
    const std::string bytes = recorded_bytes("player");
    const std::size_t goodbye = bytes.rfind(amf_string("deleteStream"));
    if (goodbye == std::string::npos) {
        throw TestFailure("the recorded player did not take its leave");
    }
    return {"player", bytes, "recorded", true, goodbye - 8};
}

}  // namespace

Session session_named(const std::string& name) {
    if (name == "hand_made") {
        return hand_made_session();
    }
    return name == "player" ? recorded_player() : Session{name, recorded_bytes(name), "recorded"};
}

void answer_handshake(Session& session, std::string_view s1) {
    constexpr std::size_t TIME_BYTES = 4;
    constexpr std::size_t RANDOM_OFFSET = 8;
    session.bytes.replace(C2_OFFSET, TIME_BYTES, s1.substr(0, TIME_BYTES));
    session.bytes.replace(C2_OFFSET + RANDOM_OFFSET, HANDSHAKE_BLOCK_BYTES - RANDOM_OFFSET,
                          s1.substr(RANDOM_OFFSET));
}

// Performs the handshake with a client that sends any bytes, in pieces of any size, and reads only a limited
// number. The answer, the refusal and the printed line must follow from the bytes.
//
//   input: how the bytes are cut | how many are taken | the client's bytes
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/check.h"
#include "core/connection.h"
#include "fuzz/support/input_bytes.h"
#include "fuzz/support/quiet_diag.h"

namespace {

constexpr std::size_t BLOCK_BYTES = 1536;
constexpr std::size_t C1_END = 1 + BLOCK_BYTES;
constexpr std::size_t C2_END = C1_END + BLOCK_BYTES;
constexpr std::size_t ANSWER_BYTES = 1 + 2 * BLOCK_BYTES;
constexpr int CLIENT_FD = 1000000;

constexpr std::array<std::size_t, 8> PIECE_BYTES{100000, 1, 2, 7, 100, 1535, 1536, 1537};

std::string_view from_client;
std::size_t piece_bytes = 0;
std::array<unsigned char, ANSWER_BYTES> answer;
std::size_t answered = 0;
std::size_t answer_room = 0;

// S1 as the first connection of every process gets it, so that a recorded handshake is valid.
struct ServerRandom {
    ServerRandom() {
        for (int& number : numbers) {
            number = static_cast<int>(random());
        }
    }
    std::array<int, BLOCK_BYTES - 8> numbers{};
};

const ServerRandom server_random;
std::size_t drawn = 0;

std::string_view s1() {
    return {reinterpret_cast<const char*>(answer.data()) + 1, BLOCK_BYTES};
}

bool is_echo(std::string_view c2) {
    return c2.substr(0, 4) == s1().substr(0, 4) && c2.substr(8) == s1().substr(8);
}

// The line that gives the reason for a failed handshake; empty if it must succeed.
std::string_view expected_failure(std::string_view bytes) {
    if (bytes.empty() || bytes[0] != 3) {
        return "C0 fail\n";
    }
    if (answer_room < 1) {
        return "S0 fail\n";
    }
    if (bytes.size() < C1_END) {
        return "C1 fail\n";
    }
    if (answer_room < C1_END) {
        return "S1 fail\n";
    }
    if (answer_room < ANSWER_BYTES) {
        return "S2 fail\n";
    }
    return bytes.size() < C2_END || !is_echo(bytes.substr(C1_END, BLOCK_BYTES)) ? "C2 fail\n" : "";
}

void check_answer(std::string_view bytes) {
    CHECK(answered < 1 || answer[0] == 3);
    if (answered >= C1_END) {
        CHECK(s1().substr(0, 8) == std::string_view("\0\0\0\0\0\0\0\0", 8));
        for (std::size_t i = 8; i < BLOCK_BYTES; ++i) {
            CHECK(answer[1 + i] == static_cast<unsigned char>(server_random.numbers[i - 8]));
        }
    }
    for (std::size_t i = C1_END; i < answered; ++i) {
        const std::size_t of_c1 = i - C1_END;
        const bool blanked = of_c1 >= 4 && of_c1 < 8;
        CHECK(answer[i] == (blanked ? 0 : static_cast<unsigned char>(bytes[1 + of_c1])));
    }
}

}  // namespace

extern "C" int rand() noexcept {
    return server_random.numbers[drawn++ % server_random.numbers.size()];
}

extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t c, int flags) {
    CHECK(fd == CLIENT_FD && flags == 0 && c != 0);
    const std::size_t taken = std::min({c, piece_bytes, from_client.size()});
    std::memcpy(buffer, from_client.data(), taken);
    from_client.remove_prefix(taken);
    return static_cast<ssize_t>(taken);
}

extern "C" ssize_t __wrap_send(int fd, const void* buffer, std::size_t c, int flags) {
    CHECK(fd == CLIENT_FD && flags == MSG_NOSIGNAL && c != 0);
    CHECK(c <= answer.size() - answered);
    const std::size_t taken = std::min({c, piece_bytes, answer_room - answered});
    if (taken == 0) {
        errno = EPIPE;
        return -1;
    }
    std::memcpy(answer.data() + answered, buffer, taken);
    answered += taken;
    return static_cast<ssize_t>(taken);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    InputBytes input(data, size);
    piece_bytes = PIECE_BYTES[input.u8() % PIECE_BYTES.size()];
    // Usually the client reads the whole answer.
    const std::uint16_t room = input.u16();
    answer_room = room >= ANSWER_BYTES ? ANSWER_BYTES : room;
    const std::string_view bytes = input.take_all();
    from_client = bytes;
    answered = 0;
    drawn = 0;
    forget_diagnostics();

    RTMPConnection conn(CLIENT_FD, 0, {});
    const bool done = conn.handshake();
    check_answer(bytes);
    const std::string_view failure = expected_failure(bytes);
    CHECK(done == failure.empty());
    CHECK(last_diagnostic() == failure);
    CHECK(conn.conn_g_server.bytes_total == bytes.size() - from_client.size());
    CHECK(conn.conn_g_client.bytes_total == answered);
    CHECK(bytes.size() - from_client.size() <= C2_END);
    return 0;
}

// How long a connection may be served in one pass of the main loop.
#include "tests/app/app_fixture.h"
#include "tests/support/wrapped_calls.h"

namespace {

using testing::ElementsAre;

class turn_test : public AppFixture {
  protected:
    turn_test() { wrapped_calls = {}; }
    ~turn_test() override { wrapped_calls = {}; }

    // Makes every message of conn take this long. A message is handled under the lock, which is taken once
    // for each.
    static void make_messages_take(const RTMPConnection& conn, std::uint64_t us) {
        wrapped_calls.at_lock = [&conn, us](const pthread_mutex_t* mutex) {
            fake_clock_us += mutex == &conn.mutex.handle ? us : 0;
        };
    }

    // Receives this many commands, each of which is answered with its number.
    void receive_numbered(RTMPConnection& conn, int count) {
        for (int id = 0; id < count; ++id) {
            receive_command(conn, amf_string("FCPublish") + amf_number(id) + amf_null());
        }
    }

    // Makes one pass and returns the numbers that were answered in it.
    std::vector<int> answered(RTMPConnection& conn) {
        EXPECT_EQ(idle(conn), "");
        std::vector<int> numbers;
        for (const QueuedMessage& reply : take_queued(conn)) {
            numbers.push_back(
                static_cast<int>(amf_decode_number(reply.payload.substr(amf_string("_result").size()))));
        }
        return numbers;
    }
};

}  // namespace

TEST_F(turn_test, a_turn_ends_after_the_message_during_which_20_ms_have_passed) {
    struct Case {
        std::uint64_t us;
        std::size_t handled;
    };
    constexpr int WAITING = 5;
    for (const Case& row : std::vector<Case>{
             {0, 5}, {4999, 5}, {5000, 4}, {6667, 3}, {10000, 2}, {19999, 2}, {20000, 1}, {3000000, 1}}) {
        RTMPConnection& conn = add_connection();
        receive_numbered(conn, WAITING);
        make_messages_take(conn, row.us);
        EXPECT_EQ(answered(conn).size(), row.handled) << row.us;
        EXPECT_EQ(conn.connection_in.size(), WAITING - row.handled) << row.us;
    }
}

TEST_F(turn_test, messages_left_by_a_turn_keep_their_order_and_are_handled_in_the_next_passes) {
    RTMPConnection& conn = add_connection();
    receive_numbered(conn, 5);
    make_messages_take(conn, 10000);
    EXPECT_THAT(answered(conn), ElementsAre(0, 1));
    EXPECT_THAT(answered(conn), ElementsAre(2, 3));
    EXPECT_THAT(answered(conn), ElementsAre(4));
}

TEST_F(turn_test, a_long_turn_of_one_connection_does_not_shorten_the_next_ones) {
    RTMPConnection& slow = add_connection();
    RTMPConnection& next = add_connection();
    receive_numbered(slow, 2);
    receive_numbered(next, 4);
    make_messages_take(slow, 1000000);
    EXPECT_EQ(printed_by([] { idle_all_connections(); }), "");
    EXPECT_EQ(slow.connection_in.size(), 1U);
    EXPECT_EQ(next.connection_in.size(), 0U);
}

TEST_F(turn_test, a_message_that_requests_a_close_does_not_end_the_turn) {
    RTMPConnection& conn = add_connection();
    receive_command(conn, amf_string("badcmd"));
    receive_numbered(conn, 4);
    make_messages_take(conn, 5000);
    EXPECT_EQ(idle(conn), "Unknown command 'badcmd'\nAMF0 error command\n");
    EXPECT_EQ(take_queued(conn).size(), 3U);
    EXPECT_EQ(conn.connection_in.size(), 1U);
    EXPECT_EQ(idle(conn), "");
    EXPECT_EQ(conn.fd, -1);
    EXPECT_TRUE(take_queued(conn).empty()) << "the close comes before what is left";
}

#include <string>
#include <vector>

#include "tests/app/app_fixture.h"
#include "tests/app/scripted_rand.h"

namespace {

using Messages = std::vector<QueuedMessage>;

class create_stream_test : public AppFixture {
  protected:
    ~create_stream_test() override { EXPECT_TRUE(scripted_draws.empty()) << "rand() was called too seldom"; }

    void SetUp() override { scripted_draws.clear(); }
};

}  // namespace

TEST_F(create_stream_test, returns_the_product_of_two_draws_in_31_bits_and_never_0) {
    struct Case {
        int first;
        int second;
        std::uint32_t stream_id;
    };
    for (const Case& row : std::vector<Case>{{6, 7, 42},
                                             {1, 1, 1},
                                             {0, 0, 1},
                                             {0, 5, 1},
                                             {65536, 65536, 1},
                                             {65536, 32768, 1},
                                             {0x7FFFFFFF, 1, 0x7FFFFFFF},
                                             {0x7FFFFFFF, 2, 0x7FFFFFFE},
                                             {0x7FFFFFFF, 0x7FFFFFFF, 1},
                                             {65537, 65537, 131073}}) {
        RTMPConnection& conn = add_connection();
        scripted_draws = {row.first, row.second};
        EXPECT_EQ(command(conn, amf_string("createStream") + amf_number(2) + amf_null()),
                  "I choose stream ID " + std::to_string(row.stream_id) + "\n");
        EXPECT_EQ(
            take_queued(conn),
            (Messages{{MESSAGE_AMF0_COMMAND, 0, create_stream_reply(amf_number(2), row.stream_id), 3, 0}}));
        EXPECT_EQ(conn.stream_id, row.stream_id);
        EXPECT_TRUE(conn.stream_id_unconfirmed);
    }
}

TEST_F(create_stream_test, draws_a_new_id_each_time) {
    RTMPConnection& conn = add_connection();
    scripted_draws = {2, 3, 4, 5};
    command(conn, amf_string("createStream") + amf_number(2) + amf_null());
    conn.stream_id_unconfirmed = false;
    command(conn, amf_string("createStream") + amf_undefined() + amf_object({}));
    EXPECT_EQ(conn.stream_id, 20U);
    EXPECT_TRUE(conn.stream_id_unconfirmed);
    EXPECT_EQ(take_queued(conn),
              (Messages{{MESSAGE_AMF0_COMMAND, 0, create_stream_reply(amf_number(2), 6), 3, 0},
                        {MESSAGE_AMF0_COMMAND, 0, create_stream_reply(amf_undefined(), 20), 3, 0}}));
}

TEST_F(create_stream_test, refuses_missing_and_malformed_arguments_before_it_draws) {
    for (const Bytes& arguments : std::vector<Bytes>{"", amf_number(2), amf_number(2).substr(0, 5),
                                                     amf_number(2) + bytes_of({0x0A})}) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, amf_string("createStream") + arguments), "AMF0 error command\n")
            << to_hex(arguments);
        EXPECT_EQ(conn.stream_id, 0U);
        EXPECT_FALSE(conn.stream_id_unconfirmed);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_out.empty());
    }
}

TEST_F(create_stream_test, drops_a_client_whose_transaction_id_cannot_be_echoed) {
    RTMPConnection& conn = add_connection();
    scripted_draws = {2, 3};
    EXPECT_EQ(command(conn, amf_string("createStream") + bytes_of({AMF_OBJECT_END}) + amf_null()),
              "I choose stream ID 6\nAMF0 error command\n");
    EXPECT_TRUE(conn.connection_out.empty());
}

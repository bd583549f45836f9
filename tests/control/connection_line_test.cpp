#include "control/connection_line.h"

#include <string>
#include <vector>

#include "tests/support/connection_fixture.h"

namespace {

class connection_line_test : public ConnectionFixture {};

std::string line_of(RTMPConnection& conn) {
    const ConnectionLine line = connection_line(conn);
    return line.before_name + line.stream_name.str() + line.after_name;
}

std::string slot_of(const RTMPConnection& conn) {
    return std::to_string(conn.conn_idx);
}

}  // namespace

TEST_F(connection_line_test, of_a_client_that_has_done_nothing_has_seven_fields) {
    RTMPConnection& conn = add_connection("192.0.2.7:50512");
    EXPECT_EQ(line_of(conn), slot_of(conn) + "\t\t\t\t0\t0\t192.0.2.7:50512");
}

TEST_F(connection_line_test, has_name_mode_size_bytes_sent_bytes_received_and_address_in_this_order) {
    RTMPConnection& conn = add_connection("203.0.113.9:1234");
    conn.stream_name = "cam1";
    conn.stream_mode = "publish";
    conn.stream_format.video_width = 1280;
    conn.stream_format.video_height = 720;
    conn.conn_g_client.bytes_total = 3073;
    conn.conn_g_server.bytes_total = 18446744073709551615U;
    EXPECT_EQ(line_of(conn),
              slot_of(conn) + "\tcam1\tpublish\t1280x720\t3073\t18446744073709551615\t203.0.113.9:1234");
}

TEST_F(connection_line_test, has_a_size_only_when_both_sides_are_known) {
    struct Case {
        std::int32_t width;
        std::int32_t height;
        std::string size;
    };
    for (const Case& row : std::vector<Case>{{1, 1, "1x1"},
                                             {2147483647, 2147483647, "2147483647x2147483647"},
                                             {0, 720, ""},
                                             {-1, 720, ""},
                                             {1280, 0, ""},
                                             {1280, -1, ""},
                                             {-1280, -720, ""},
                                             {-1, -1, ""}}) {
        RTMPConnection& conn = add_connection("");
        conn.stream_mode = "play";
        conn.stream_format.video_width = row.width;
        conn.stream_format.video_height = row.height;
        EXPECT_EQ(line_of(conn), slot_of(conn) + "\t\tplay\t" + row.size + "\t0\t0\t");
    }
}

TEST_F(connection_line_test, leaves_the_lock_free) {
    RTMPConnection& conn = add_connection();
    (void)line_of(conn);
    ASSERT_EQ(pthread_mutex_trylock(&conn.mutex.handle), 0);
    pthread_mutex_unlock(&conn.mutex.handle);
}

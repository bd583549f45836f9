#include <cstdlib>
#include <new>

#include "tests/app/app_fixture.h"

namespace {

// Every non-throwing allocation fails.
bool refuse = false;

}  // namespace

void* operator new[](std::size_t bytes, const std::nothrow_t& /*unused*/) noexcept {
    return refuse ? nullptr : std::malloc(bytes);
}
void* operator new[](std::size_t bytes) {
    void* const memory = std::malloc(bytes);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*bytes*/) noexcept {
    std::free(memory);
}

namespace {

class failing_allocation_test : public AppFixture {
  protected:
    ~failing_allocation_test() override { refuse = false; }
};

}  // namespace

TEST_F(failing_allocation_test, a_connect_without_memory_for_its_reply_drops_the_client) {
    RTMPConnection& conn = add_connection();
    receive_command(conn, connect_command(amf_number(1), amf_object({{"app", amf_string("ombrex-live")}})));
    refuse = true;
    EXPECT_TRUE(idle(conn).ends_with("accepted app ombrex-live\nAMF0 error command\n"));
    EXPECT_TRUE(conn.close_requested);
    EXPECT_TRUE(take_queued(conn).empty());
}

TEST_F(failing_allocation_test, a_publish_without_memory_for_its_reply_drops_the_client) {
    RTMPConnection& conn = add_client();
    receive_command(conn, publish_command("cam1"));
    refuse = true;
    EXPECT_EQ(idle(conn), "AMF0 error command\n");
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(failing_allocation_test, a_play_without_memory_for_its_reply_drops_the_client) {
    RTMPConnection& conn = add_client();
    receive_command(conn, play_command("cam1"));
    refuse = true;
    EXPECT_EQ(idle(conn), "AMF0 error command\n");
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(failing_allocation_test, metadata_without_memory_is_not_sent_and_drops_no_connection) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    receive(publisher, make_packet(MESSAGE_AMF0_DATA, 0, set_metadata(amf_object({}))));
    refuse = true;
    idle(publisher);
    EXPECT_TRUE(take_queued(player).empty());
    EXPECT_FALSE(publisher.close_requested || player.close_requested);
}

TEST_F(failing_allocation_test, all_players_miss_a_message_without_memory_for_its_shared_payload) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    RTMPConnection& other = add_player();
    const std::string TIMEBASE_LINE = "From publisher to connection: source timebase 5, add 0\n";
    receive_audio(publisher, 5);
    refuse = true;
    EXPECT_TRUE(idle(publisher).ends_with("Relay fail\n" + TIMEBASE_LINE + "Relay fail\n"));
    EXPECT_TRUE(take_queued(player).empty());
    EXPECT_TRUE(take_queued(other).empty());
    EXPECT_FALSE(publisher.close_requested || player.close_requested || other.close_requested);
    refuse = false;
    EXPECT_EQ(audio(publisher, 5), "");
    EXPECT_EQ(take_queued(player).size(), 1U);
    EXPECT_EQ(take_queued(other).size(), 1U);
}

TEST_F(failing_allocation_test, a_sequence_header_without_memory_is_not_kept) {
    RTMPConnection& publisher = add_publisher();
    audio(publisher, 5, AAC_HEADER);
    receive_audio(publisher, 5, AAC_HEADER);
    refuse = true;
    idle(publisher);
    EXPECT_EQ(publisher.audio.seq_header.chunk.message.data_length, 0U);
    EXPECT_FALSE(publisher.close_requested);
}

#include <cstdlib>
#include <new>

#include "tests/app/app_fixture.h"

namespace {

// The non-throwing allocation of exactly this size fails; 0: none does.
std::size_t refused_bytes = 0;

}  // namespace

void* operator new[](std::size_t bytes, const std::nothrow_t& /*unused*/) noexcept {
    return refused_bytes != 0 && bytes == refused_bytes ? nullptr : std::malloc(bytes);
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

class FailingAllocationTest : public AppFixture {
  protected:
    ~FailingAllocationTest() override { refused_bytes = 0; }
};

constexpr std::size_t ENCODING_BUFFER_BYTES = 65536;

}  // namespace

TEST_F(FailingAllocationTest, a_connect_without_memory_for_its_reply_drops_the_client) {
    RTMPConnection& conn = add_connection();
    refused_bytes = ENCODING_BUFFER_BYTES;
    EXPECT_TRUE(
        command(conn, connect_command(amf_number(1), amf_object({{"app", amf_string("ombrex-live")}})))
            .ends_with("accepted app ombrex-live\nAMF0 error command\n"));
    EXPECT_TRUE(conn.close_requested);
    EXPECT_TRUE(take_queued(conn).empty());
}

TEST_F(FailingAllocationTest, a_publish_without_memory_for_its_reply_drops_the_client) {
    RTMPConnection& conn = add_client();
    refused_bytes = ENCODING_BUFFER_BYTES;
    EXPECT_EQ(command(conn, publish_command("cam1")), "AMF0 error command\n");
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(FailingAllocationTest, a_play_without_memory_for_its_reply_drops_the_client) {
    RTMPConnection& conn = add_client();
    refused_bytes = ENCODING_BUFFER_BYTES;
    EXPECT_EQ(command(conn, play_command("cam1")), "AMF0 error command\n");
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(FailingAllocationTest, metadata_without_memory_is_not_sent_and_drops_nobody) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    refused_bytes = ENCODING_BUFFER_BYTES;
    data_message(publisher, set_metadata(amf_object({})));
    EXPECT_TRUE(take_queued(player).empty());
    EXPECT_FALSE(publisher.close_requested || player.close_requested);
}

TEST_F(FailingAllocationTest, a_player_without_memory_for_its_copy_misses_the_message) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    receive_audio(publisher, 5);
    refused_bytes = AAC_FRAME.size();
    EXPECT_TRUE(idle(publisher).ends_with("Relay fail\n"));
    EXPECT_TRUE(take_queued(player).empty());
    EXPECT_FALSE(publisher.close_requested || player.close_requested);
}

TEST_F(FailingAllocationTest, a_sequence_header_without_memory_is_not_kept) {
    RTMPConnection& publisher = add_publisher();
    audio(publisher, 5, AAC_HEADER);
    receive_audio(publisher, 5, AAC_HEADER);
    refused_bytes = AAC_HEADER.size();
    idle(publisher);
    EXPECT_EQ(publisher.audio_seq_header.chunk.message.data_length, 0U);
    EXPECT_FALSE(publisher.close_requested);
}

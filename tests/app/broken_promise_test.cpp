// How the main thread is guarded against failures of the system and of its own parts, each of which breaks a
// promise here.
#include <cerrno>
#include <functional>

#include "control/connection_line.h"
#include "relay/av_relay.h"
#include "relay/codec_lock.h"
#include "tests/app/app_fixture.h"
#include "tests/support/assertion_line.h"
#include "tests/support/wrapped_calls.h"

namespace {

bool codec_rule_is_broken = false;

}  // namespace

// The server's file with its function under another name. The one below takes its place.
#define check_codec_lock check_codec_lock_as_promised
#include "relay/codec_lock.cpp"
#undef check_codec_lock

CodecLock check_codec_lock(std::int32_t& lock_type, std::uint32_t metadata_codec_id, const RTMP_Packet& pkt) {
    constexpr CodecLock NO_ANSWER{99};
    return codec_rule_is_broken ? NO_ANSWER : check_codec_lock_as_promised(lock_type, metadata_codec_id, pkt);
}

namespace {

class BrokenPromise : public AppFixture {
  protected:
    BrokenPromise() { keep_all_promises(); }
    ~BrokenPromise() override { keep_all_promises(); }

    static void fail_unlocking(RTMPConnection& conn) { wrapped_calls.failing_unlock = &conn.mutex.handle; }

  private:
    static void keep_all_promises() {
        codec_rule_is_broken = false;
        wrapped_calls = {};
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

using broken_main_thread_promise_death_test = BrokenPromise;

}  // namespace

TEST_F(broken_main_thread_promise_death_test,
       of_a_queue_whose_front_changes_while_it_is_handled_ends_the_process) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    receive_audio(publisher, 5);
    wrapped_calls.at_lock = [&](const pthread_mutex_t* mutex) {
        if (mutex == &player.mutex.handle) {
            publisher.connection_in.push_front(make_packet(MESSAGE_AUDIO, 4, AAC_FRAME));
        }
    };
    EXPECT_EXIT(publisher.idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("dispatch_front_message", "&in_pkt == &connection_in.front()"));
}

TEST_F(broken_main_thread_promise_death_test, of_an_unlock_ends_the_process_when_a_connection_is_looked_at) {
    RTMPConnection& conn = add_client();
    fail_unlocking(conn);
    EXPECT_EXIT((void)conn.ok(), testing::KilledBySignal(SIGABRT),
                assertion_line("ok", "connection_io_unlock()"));
    EXPECT_EXIT(conn.idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("dispatch_front_message", "connection_io_unlock()"));
    EXPECT_EXIT((void)connection_line(conn), testing::KilledBySignal(SIGABRT),
                assertion_line("connection_line", "p->connection_io_unlock()"));
}

TEST_F(broken_main_thread_promise_death_test, of_an_unlock_ends_the_process_when_a_player_is_served) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    const auto relay_audio = [&](const std::string& payload) {
        RTMP_Packet pkt = make_packet(MESSAGE_AUDIO, 5, payload);
        (void)relay_published_packet(publisher, pkt, find_or_insert_stream(publisher.stream_name));
    };
    fail_unlocking(player);
    EXPECT_EXIT(relay_audio(AAC_FRAME), testing::KilledBySignal(SIGABRT),
                assertion_line("queue_outgoing", "connection_io_unlock()"));
    receive(publisher, make_packet(MESSAGE_AMF0_DATA, 0, set_metadata(amf_object({}))));
    EXPECT_EXIT(publisher.idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("forward_metadata_to_players", "p->connection_io_unlock()"));

    // The same for the saved header that a late player gets first.
    wrapped_calls.failing_unlock = nullptr;
    relay_audio(AAC_HEADER);
    RTMPConnection& late_player = add_player();
    fail_unlocking(late_player);
    EXPECT_EXIT(relay_audio(AAC_FRAME), testing::KilledBySignal(SIGABRT),
                testing::AllOf(testing::HasSubstr("Relay: Repeating audio sequence header\n"),
                               assertion_line("queue_outgoing", "connection_io_unlock()")));
}

TEST_F(broken_main_thread_promise_death_test, of_the_codec_rule_ends_the_process) {
    RTMPConnection& publisher = add_publisher();
    const auto relay = [&](std::uint8_t type) {
        RTMP_Packet pkt = make_packet(type, 5, AAC_FRAME);
        (void)relay_published_packet(publisher, pkt, find_or_insert_stream(publisher.stream_name));
    };
    codec_rule_is_broken = true;
    EXPECT_EXIT(relay(MESSAGE_AUDIO), testing::KilledBySignal(SIGABRT),
                assertion_line("lock_codec", "false"));
    EXPECT_EXIT(relay(MESSAGE_VIDEO), testing::KilledBySignal(SIGABRT),
                assertion_line("lock_codec", "false"));
}

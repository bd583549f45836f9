// Memory used to decode a large message is returned to the system even if no client leaves.
#include "core/heap.h"
#include "tests/app/app_fixture.h"
#include "tests/support/wrapped_calls.h"

namespace {

constexpr std::uint64_t TEN_SECONDS_US = 10000000;

class large_values_test : public AppFixture {
  protected:
    large_values_test() {
        // Discards what other tests have left.
        (void)trims_after(TEN_SECONDS_US);
        wrapped_calls = {};
    }
    ~large_values_test() override { wrapped_calls = {}; }

    // Advances the clock by this time and returns how often free memory has been returned so far.
    static std::size_t trims_after(std::uint64_t us) {
        fake_clock_us += us;
        give_back_free_memory();
        return wrapped_calls.malloc_trims.size();
    }

    // Nothing after the last value is read.
    static Bytes padded(Bytes payload, std::size_t bytes) {
        payload.resize(bytes, '\0');
        return payload;
    }
};

}  // namespace

TEST_F(large_values_test,
       are_returned_to_the_system_ten_seconds_after_their_message_and_ordinary_ones_are_not) {
    constexpr std::size_t LARGE = 4096;
    RTMPConnection& conn = add_publisher();
    const Bytes command_payload = amf_string("createStream") + amf_number(2) + amf_null();
    const Bytes metadata = set_metadata(amf_object({{"width", amf_number(1280)}}));
    struct Case {
        std::uint8_t type;
        Bytes payload;
        std::size_t trims;
    };
    for (const Case& row : std::vector<Case>{{MESSAGE_AMF0_COMMAND, padded(command_payload, LARGE - 1), 0},
                                             {MESSAGE_AMF0_COMMAND, padded(command_payload, LARGE), 1},
                                             {MESSAGE_AMF0_DATA, padded(metadata, LARGE - 1), 0},
                                             {MESSAGE_AMF0_DATA, padded(metadata, LARGE), 1},
                                             {MESSAGE_AUDIO, padded(AAC_FRAME, 100000), 0}}) {
        wrapped_calls.malloc_trims.clear();
        receive(conn, make_packet(row.type, 0, row.payload));
        (void)idle(conn);
        EXPECT_EQ(trims_after(TEN_SECONDS_US - 1), 0U) << unsigned{row.type} << " " << row.payload.size();
        EXPECT_EQ(trims_after(1), row.trims) << unsigned{row.type} << " " << row.payload.size();
        EXPECT_EQ(trims_after(TEN_SECONDS_US), row.trims);
    }
    EXPECT_FALSE(conn.close_requested);
}

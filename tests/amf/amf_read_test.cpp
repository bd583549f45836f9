#include "amf/amf_read.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <csignal>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "tests/amf/hostile_values.h"
#include "tests/support/assertion_line.h"
#include "tests/support/guarded_bytes.h"
#include "tests/support/page_example.h"

namespace {

constexpr std::string_view TOO_LONG = "AMF0 error ECMA array too long vs count\n";
constexpr std::string_view TOO_SHORT = "AMF0 error ECMA array too short vs count\n";

struct Decoded {
    bool ok = false;
    AMF_Value value;
    std::size_t consumed = 0;
    std::string printed;
};

// Decodes the bytes, which end at an unreadable page.
Decoded decode(const Bytes& bytes) {
    GuardedBytes guarded(bytes);
    Decoded result;
    result.value.set_string("left over");
    result.value.member("left over");
    result.value.elements.append();
    const unsigned char* s = guarded.begin();
    testing::internal::CaptureStderr();
    result.ok = AMF_ReadValue(result.value, s, guarded.end());
    result.printed = testing::internal::GetCapturedStderr();
    result.consumed = static_cast<std::size_t>(s - guarded.begin());
    return result;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes be32(std::uint32_t value) {
    return {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
            static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
}

Bytes key(std::string_view text) {
    Bytes bytes(2 + text.size());
    bytes[0] = static_cast<unsigned char>(text.size() >> 8);
    bytes[1] = static_cast<unsigned char>(text.size());
    std::copy(text.begin(), text.end(), bytes.begin() + 2);
    return bytes;
}

Bytes string_value(std::string_view text) {
    return Bytes{0x02} + key(text);
}

Bytes number_value(double number) {
    const auto bits = std::bit_cast<std::uint64_t>(number);
    return Bytes{0x00} + be32(static_cast<std::uint32_t>(bits >> 32)) +
           be32(static_cast<std::uint32_t>(bits));
}

Bytes ecma(std::uint32_t count) {
    return Bytes{0x08} + be32(count);
}

const Bytes OBJECT{0x03};
const Bytes NULL_VALUE{0x05};
const Bytes END{0x00, 0x00, 0x09};
const Bytes HALF_A_NUMBER{0x00, 0x3F, 0xF0, 0x00};

void expect_decoded(const Bytes& bytes) {
    const Decoded result = decode(bytes);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, bytes.size());
    EXPECT_EQ(result.printed, "");
}

void expect_refused(const Bytes& bytes, std::string_view printed = "") {
    const Decoded result = decode(bytes);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.consumed, 0U);
    EXPECT_EQ(result.printed, printed);
    EXPECT_EQ(static_cast<unsigned char>(result.value.type), bytes.front());
    EXPECT_TRUE(result.value.elements.empty());
}

// Decodes the values of an example on the page, one after another. Expects nothing else in it.
std::vector<AMF_Value> decode_example(const std::string& name) {
    const std::string text = example_bytes(name);
    GuardedBytes bytes(Bytes(text.begin(), text.end()));
    const unsigned char* s = bytes.begin();
    std::vector<AMF_Value> values;
    while (s < bytes.end()) {
        values.emplace_back();
        if (!AMF_ReadValue(values.back(), s, bytes.end())) {
            ADD_FAILURE() << name << " at byte " << s - bytes.begin();
            return values;
        }
    }
    return values;
}

}  // namespace

TEST(amf_read, decodes_the_values_of_the_page) {
    const std::vector<AMF_Value> values = decode_example("amf0_values");
    const std::vector<AMF_Type> types{AMF_Type::Number,    AMF_Type::Boolean,    AMF_Type::String,
                                      AMF_Type::Object,    AMF_Type::Null,       AMF_Type::Undefined,
                                      AMF_Type::ECMAArray, AMF_Type::LongString, AMF_Type::XMLDocument};
    ASSERT_EQ(values.size(), types.size());
    for (std::size_t i = 0; i < types.size(); ++i) {
        EXPECT_EQ(values[i].type, types[i]) << i;
    }
    EXPECT_EQ(values[0].number, 1);
    EXPECT_EQ(values[1].boolean, 1);
    EXPECT_EQ(values[2].string, "ab");
    EXPECT_EQ(values[3].members.size(), 1U);
    EXPECT_EQ(values[3].find_member("a").type, AMF_Type::Null);
    EXPECT_EQ(values[6].members.size(), 1U);
    EXPECT_EQ(values[6].find_member("b").number, 2);
    EXPECT_EQ(values[7].string, "cd");
    EXPECT_EQ(values[8].string, "<x/>");
}

TEST(amf_read, decodes_the_messages_of_the_page) {
    const std::vector<AMF_Value> command = decode_example("amf0_connect");
    ASSERT_EQ(command.size(), 3U);
    EXPECT_EQ(command[0].string, "connect");
    EXPECT_EQ(command[1].number, 1);
    EXPECT_EQ(command[2].find_member("app").string, "ombrex-live");
    EXPECT_EQ(command[2].find_member("objectEncoding").type, AMF_Type::Number);

    const std::vector<AMF_Value> metadata = decode_example("amf0_metadata");
    ASSERT_EQ(metadata.size(), 2U);
    EXPECT_EQ(metadata[0].string, "onMetaData");
    EXPECT_EQ(metadata[1].find_member("height").number, 720);
    EXPECT_EQ(metadata[1].find_member("width").number, 1280);
}

TEST(amf_read, decodes_an_empty_string) {
    const Decoded result = decode({0x02, 0x00, 0x00});
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, 3U);
    EXPECT_EQ(result.value.type, AMF_Type::String);
    EXPECT_EQ(result.value.string, "");
    EXPECT_TRUE(result.value.members.empty());
    EXPECT_TRUE(result.value.elements.empty());
}

TEST(amf_read, decodes_strings_of_any_bytes_up_to_the_longest) {
    for (const std::string& text :
         {std::string("ab"), std::string("a\0b\xff\n", 5), std::string(65535, 'x')}) {
        const Decoded result = decode(string_value(text));
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.consumed, 3 + text.size());
        EXPECT_EQ(result.value.string, text);
    }
}

TEST(amf_read, refuses_a_string_that_ends_too_early) {
    expect_refused({0x02});
    expect_refused({0x02, 0x00});
    expect_refused({0x02, 0x00, 0x05, 'a', 'b', 'c', 'd'});
    expect_refused({0x02, 0xFF, 0xFF});
}

TEST(amf_read, decodes_exactly_one_value_and_leaves_the_rest) {
    const Decoded result = decode(string_value("connect") + number_value(1));
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, 10U);
    EXPECT_EQ(result.value.string, "connect");
}

TEST(amf_read, decodes_long_strings_and_xml_documents_up_to_a_mebibyte) {
    for (const unsigned char marker : Bytes{0x0C, 0x0F}) {
        for (const std::uint32_t length : {0x0U, 0x10000U, 0x100000U}) {
            const Decoded result = decode(Bytes{marker} + be32(length) + Bytes(length, 'x'));
            EXPECT_TRUE(result.ok);
            EXPECT_EQ(result.consumed, 5 + std::size_t{length});
            EXPECT_EQ(result.value.type, AMF_Type{marker});
            EXPECT_EQ(result.value.string, std::string(length, 'x'));
        }
        expect_refused(Bytes{marker} + be32(0x100001) + Bytes(0x100001, 'x'));
    }
}

TEST(amf_read, refuses_a_long_string_that_ends_too_early) {
    expect_refused({0x0C});
    expect_refused({0x0C, 0x00, 0x00, 0x00});
    expect_refused({0x0C, 0x00, 0x00, 0x00, 0x02, 'a'});
    expect_refused({0x0C, 0x00, 0x10, 0x00, 0x00});
    expect_refused({0x0C, 0xFF, 0xFF, 0xFF, 0xFF, 'a'});
}

TEST(amf_read, decodes_numbers_bit_by_bit) {
    for (const std::uint64_t bits :
         {0x3FF0000000000000ULL, 0x0ULL, 0x8000000000000000ULL, 0x7FF0000000000000ULL, 0xFFF8000000000001ULL,
          0x7FF4000000000001ULL, 0x0102030405060708ULL}) {
        const Decoded result = decode(Bytes{0x00} + be32(static_cast<std::uint32_t>(bits >> 32)) +
                                      be32(static_cast<std::uint32_t>(bits)));
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.consumed, 9U);
        EXPECT_EQ(result.value.type, AMF_Type::Number);
        EXPECT_EQ(std::bit_cast<std::uint64_t>(result.value.number), bits);
    }
}

TEST(amf_read, refuses_a_number_of_less_than_eight_bytes) {
    for (std::size_t length = 0; length < 8; ++length) {
        expect_refused(Bytes{0x00} + Bytes(length, 0x40));
    }
}

TEST(amf_read, keeps_the_byte_of_a_boolean) {
    for (const unsigned char byte : Bytes{0, 1, 2, 255}) {
        const Decoded result = decode({0x01, byte});
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.consumed, 2U);
        EXPECT_EQ(result.value.type, AMF_Type::Boolean);
        EXPECT_EQ(result.value.boolean, byte);
    }
    expect_refused({0x01});
}

TEST(amf_read, decodes_the_types_without_payload_from_one_byte) {
    for (const unsigned char marker : Bytes{0x05, 0x06, 0x09}) {
        const Decoded result = decode({marker, 0x77});
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.consumed, 1U);
        EXPECT_EQ(result.value.type, AMF_Type{marker});
        EXPECT_EQ(result.value.string, "");
    }
}

TEST(amf_read, refuses_the_types_that_are_not_supported_and_unknown_markers) {
    for (const unsigned char marker : Bytes{0x04, 0x07, 0x0A, 0x0B, 0x0D, 0x0E}) {
        expect_refused(Bytes{marker} + Bytes(16, 0x00));
        expect_refused(OBJECT + key("a") + Bytes{marker} + Bytes(16, 0x00));
    }
    for (unsigned int marker = 0x10; marker <= 0xFF; ++marker) {
        expect_refused(Bytes{static_cast<unsigned char>(marker)} + Bytes(16, 0x00));
        expect_refused(OBJECT + key("a") + Bytes{static_cast<unsigned char>(marker)} + Bytes(16, 0x00));
    }
}

TEST(amf_read, the_checked_function_refuses_empty_data_and_moves_the_cursor_only_on_success) {
    const Bytes bytes = NULL_VALUE;
    GuardedBytes guarded(bytes);
    AMF_Value v;
    v.set_string("kept");
    const unsigned char* s = guarded.end();
    EXPECT_FALSE(AMF_ReadValueChecked(v, s, guarded.end()));
    EXPECT_EQ(s, guarded.end());
    EXPECT_EQ(v.string, "kept");

    s = guarded.begin();
    EXPECT_TRUE(AMF_ReadValueChecked(v, s, guarded.end()));
    EXPECT_EQ(s, guarded.end());
    EXPECT_EQ(v.type, AMF_Type::Null);

    const Bytes refused{0x0B};
    s = refused.data();
    EXPECT_FALSE(AMF_ReadValueChecked(v, s, refused.data() + 1));
    EXPECT_EQ(s, refused.data());
}

TEST(amf_read, leaves_target_and_cursor_unchanged_when_a_string_is_refused) {
    const struct {
        bool wide;
        Bytes bytes;
    } rows[] = {{false, {}},       {false, {0x00}},      {false, {0, 2, 'a'}},
                {true, {0, 0, 0}}, {true, {0, 0, 0, 1}}, {true, be32(0x100001) + Bytes(0x100001, 'x')}};
    for (const auto& row : rows) {
        GuardedBytes guarded(row.bytes);
        const unsigned char* s = guarded.begin();
        std::string out = "kept";
        EXPECT_FALSE(row.wide ? AMF_ReadStringU32(out, s, guarded.end())
                              : AMF_ReadStringU16(out, s, guarded.end()));
        EXPECT_EQ(out, "kept");
        EXPECT_EQ(s, guarded.begin());
    }
}

TEST(amf_read, reads_bare_strings_and_steps_past_them) {
    const Bytes narrow{0, 2, 'a', 'b', 'c'};
    std::string out = "old";
    const unsigned char* s = narrow.data();
    EXPECT_TRUE(AMF_ReadStringU16(out, s, narrow.data() + narrow.size()));
    EXPECT_EQ(out, "ab");
    EXPECT_EQ(s, narrow.data() + 4);

    const Bytes wide{0, 0, 0, 2, 'c', 'd', 'e'};
    s = wide.data();
    EXPECT_TRUE(AMF_ReadStringU32(out, s, wide.data() + wide.size()));
    EXPECT_EQ(out, "cd");
    EXPECT_EQ(s, wide.data() + 6);
}

TEST(amf_read, reads_bare_payloads_without_touching_the_type) {
    GuardedBytes number(Bytes{0x40, 0x08, 0, 0, 0, 0, 0, 0});
    AMF_Value v;
    const unsigned char* s = number.begin();
    EXPECT_TRUE(AMF_ReadNumber(v, s, number.end()));
    EXPECT_EQ(v.number, 3.0);
    EXPECT_EQ(s, number.end());
    EXPECT_EQ(v.type, AMF_Type::Undefined);

    s = number.begin() + 1;
    EXPECT_FALSE(AMF_ReadNumber(v, s, number.end()));
    EXPECT_EQ(s, number.begin() + 1);
    EXPECT_EQ(v.number, 3.0);

    GuardedBytes boolean(Bytes{0x02});
    s = boolean.begin();
    EXPECT_TRUE(AMF_ReadBoolean(v, s, boolean.end()));
    EXPECT_EQ(v.boolean, 2);
    EXPECT_EQ(s, boolean.end());
    EXPECT_FALSE(AMF_ReadBoolean(v, s, boolean.end()));
    EXPECT_EQ(s, boolean.end());
    EXPECT_EQ(v.boolean, 2);
}

TEST(amf_read_object, reads_a_marker_at_the_end_of_the_data_as_an_empty_object) {
    const Decoded result = decode(OBJECT);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, 1U);
    EXPECT_EQ(result.value.type, AMF_Type::Object);
    EXPECT_TRUE(result.value.members.empty());
}

TEST(amf_read_object, ends_at_the_end_marker_and_consumes_it) {
    const Decoded result = decode(OBJECT + key("a") + number_value(1) + END + NULL_VALUE);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, 1U + 3 + 9 + 3);
    EXPECT_EQ(result.value.members.size(), 1U);
    EXPECT_EQ(result.value.find_member("a").number, 1.0);

    expect_decoded(OBJECT + END);
}

TEST(amf_read_object, ends_at_the_end_of_the_data_without_a_marker) {
    const Bytes bytes = OBJECT + key("a") + NULL_VALUE;
    const Decoded result = decode(bytes);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, bytes.size());
    EXPECT_EQ(result.value.members.size(), 1U);
    EXPECT_EQ(result.value.find_member("a").type, AMF_Type::Null);
}

TEST(amf_read_object, refuses_a_key_without_a_value) {
    expect_refused(OBJECT + key("a"));
    expect_refused(OBJECT + key(""));
    expect_refused(OBJECT + key("a") + NULL_VALUE + key("b"));
    expect_refused(OBJECT + Bytes{0x00});
    expect_refused(OBJECT + Bytes{0x00, 0x03, 'a', 'b'});
}

TEST(amf_read_object, keeps_the_last_of_several_members_with_one_key) {
    const Decoded numbers = decode(OBJECT + key("x") + number_value(1) + key("x") + number_value(2) + END);
    EXPECT_TRUE(numbers.ok);
    EXPECT_EQ(numbers.value.members.size(), 1U);
    EXPECT_EQ(numbers.value.find_member("x").number, 2.0);

    const Decoded kinds =
        decode(OBJECT + key("x") + OBJECT + key("in") + NULL_VALUE + END + key("x") + string_value("text") +
               key("y") + string_value("old") + key("y") + OBJECT + key("in") + NULL_VALUE + END + END);
    EXPECT_TRUE(kinds.ok);
    EXPECT_EQ(kinds.value.members.size(), 2U);
    EXPECT_EQ(kinds.value.find_member("x").type, AMF_Type::String);
    EXPECT_TRUE(kinds.value.find_member("x").members.empty());
    EXPECT_EQ(kinds.value.find_member("y").type, AMF_Type::Object);
    EXPECT_EQ(kinds.value.find_member("y").string, "");
    EXPECT_EQ(kinds.value.find_member("y").members.size(), 1U);
}

TEST(amf_read_object, stores_an_end_marker_under_a_key_and_continues) {
    const Decoded result = decode(OBJECT + key("a") + Bytes{0x09} + key("b") + NULL_VALUE + END);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.value.members.size(), 2U);
    EXPECT_EQ(result.value.find_member("a").type, AMF_Type::ObjectEnd);
    EXPECT_EQ(result.value.find_member("b").type, AMF_Type::Null);
}

TEST(amf_read_object, stores_any_other_value_under_the_empty_key) {
    for (const Bytes& end : {END, Bytes()}) {
        const Decoded result = decode(OBJECT + key("") + number_value(5) + key("a") + NULL_VALUE + end);
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.value.members.size(), 2U);
        EXPECT_EQ(result.value.members.begin()->first, "");
        EXPECT_EQ(result.value.find_member("").number, 5.0);
    }
    const Decoded nothing = decode(OBJECT + key("a") + NULL_VALUE + END);
    EXPECT_EQ(nothing.value.members.size(), 1U);
    EXPECT_EQ(&nothing.value.find_member(""), &AMF_UndefinedValue);
}

TEST(amf_read_object, sorts_members_by_key) {
    const Decoded result = decode(OBJECT + key("b") + NULL_VALUE + key("") + NULL_VALUE + key("ab") +
                                  NULL_VALUE + key("\xff") + NULL_VALUE + key("B") + NULL_VALUE + END);
    std::vector<std::string> keys;
    for (const auto& [name, value] : result.value.members) {
        keys.push_back(name);
    }
    EXPECT_THAT(keys, testing::ElementsAre("", "B", "ab", "b", "\xff"));
}

TEST(amf_read_object, decodes_keys_of_any_bytes_up_to_the_longest) {
    for (const std::string& name : {std::string("a\0b", 3), std::string(65535, 'k')}) {
        const Decoded result = decode(OBJECT + key(name) + number_value(1) + END);
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.value.find_member(name).number, 1.0);
    }
}

TEST(amf_read_object, decodes_every_kind_of_member_at_every_level) {
    const Bytes bytes = OBJECT + key("o") + OBJECT + key("e") + ecma(2) + key("n") + number_value(1) +
                        key("o") + OBJECT + END + END + key("s") + string_value("in") + END + key("u") +
                        Bytes{0x06} + key("l") + Bytes{0x0C, 0, 0, 0, 1, 'L'} + key("t") + Bytes{0x01, 0x01} +
                        END;
    const Decoded result = decode(bytes);
    ASSERT_TRUE(result.ok);
    EXPECT_EQ(result.consumed, bytes.size());
    EXPECT_EQ(result.value.members.size(), 4U);
    EXPECT_EQ(result.value.find_member("u").type, AMF_Type::Undefined);
    EXPECT_EQ(result.value.find_member("l").string, "L");
    EXPECT_EQ(result.value.find_member("t").boolean, 1);
    const AMF_Value& inner = result.value.find_member("o");
    EXPECT_EQ(inner.members.size(), 2U);
    EXPECT_EQ(inner.find_member("s").string, "in");
    EXPECT_EQ(inner.find_member("e").type, AMF_Type::ECMAArray);
    EXPECT_EQ(inner.find_member("e").find_member("n").number, 1.0);
    EXPECT_EQ(inner.find_member("e").find_member("o").type, AMF_Type::Object);
}

TEST(amf_read_object, holds_only_complete_members_after_a_failure) {
    const Decoded result = decode(OBJECT + key("a") + number_value(1) + key("o") + OBJECT + key("in") +
                                  NULL_VALUE + key("x") + HALF_A_NUMBER);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.consumed, 0U);
    EXPECT_EQ(result.value.type, AMF_Type::Object);
    EXPECT_EQ(result.value.members.size(), 1U);
    EXPECT_EQ(result.value.find_member("a").number, 1.0);
}

TEST(amf_read_object, keeps_the_earlier_member_when_its_replacement_fails) {
    for (const Bytes& replacement : {HALF_A_NUMBER, OBJECT + key("in") + HALF_A_NUMBER}) {
        const Decoded result = decode(OBJECT + key("a") + number_value(1) + key("a") + replacement);
        EXPECT_FALSE(result.ok);
        EXPECT_EQ(result.value.members.size(), 1U);
        EXPECT_EQ(result.value.find_member("a").number, 1.0);
    }
}

TEST(amf_read_object, reads_a_bare_body_into_a_value_without_clearing_it) {
    AMF_Value v;
    v.type = AMF_Type::Object;
    v.member("kept").set_number(1);
    GuardedBytes body(key("a") + NULL_VALUE + END);
    const unsigned char* s = body.begin();
    EXPECT_TRUE(AMF_ReadObjectBody(v, s, body.end()));
    EXPECT_EQ(s, body.end());
    EXPECT_EQ(v.members.size(), 2U);
    EXPECT_TRUE(AMF_ReadObjectBody(v, s, body.end()));
    EXPECT_EQ(v.members.size(), 2U);

    s = body.begin();
    EXPECT_FALSE(AMF_ReadObjectBody(v, s, body.end() - 1));
    EXPECT_EQ(s, body.begin());
    EXPECT_EQ(v.type, AMF_Type::Object);
}

TEST(amf_read_ecma_array, accepts_exactly_as_many_members_as_announced) {
    const Bytes two = key("a") + NULL_VALUE + key("b") + NULL_VALUE;
    for (const Bytes& end : {END, Bytes()}) {
        const Bytes bytes = ecma(2) + two + end;
        const Decoded result = decode(bytes);
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.consumed, bytes.size());
        EXPECT_EQ(result.printed, "");
        EXPECT_EQ(result.value.type, AMF_Type::ECMAArray);
        EXPECT_EQ(result.value.members.size(), 2U);
        expect_refused(ecma(1) + two + end, TOO_LONG);
        expect_refused(ecma(3) + two + end, TOO_SHORT);
    }
}

TEST(amf_read_ecma_array, accepts_none_when_none_is_announced) {
    expect_decoded(ecma(0));
    expect_decoded(ecma(0) + END);
    expect_refused(ecma(0) + key("a") + number_value(1), TOO_LONG);
    expect_refused(ecma(0) + key("") + number_value(1), TOO_LONG);
}

TEST(amf_read_ecma_array, refuses_an_end_before_the_announced_members) {
    expect_refused(ecma(1) + END, TOO_SHORT);
    expect_refused(ecma(1), TOO_SHORT);
    expect_refused(ecma(0xFFFFFFFF) + END, TOO_SHORT);
}

TEST(amf_read_ecma_array, refuses_a_count_of_less_than_four_bytes_in_silence) {
    for (std::size_t length = 0; length < 4; ++length) {
        expect_refused(Bytes{0x08} + Bytes(length, 0x00));
        expect_refused(OBJECT + key("a") + Bytes{0x08} + Bytes(length, 0x00));
    }
}

TEST(amf_read_ecma_array, counts_every_member_with_the_same_key) {
    const Bytes twice = key("x") + number_value(1) + key("x") + number_value(2);
    const Decoded result = decode(ecma(2) + twice + END);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.value.members.size(), 1U);
    EXPECT_EQ(result.value.find_member("x").number, 2.0);

    const Decoded refused = decode(ecma(1) + twice + END);
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.printed, TOO_LONG);
    EXPECT_EQ(refused.value.find_member("x").number, 1.0);
}

TEST(amf_read_ecma_array, counts_stored_end_markers_and_empty_keys) {
    const Decoded result = decode(ecma(2) + key("a") + Bytes{0x09} + key("") + NULL_VALUE + END);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.value.members.size(), 2U);
}

TEST(amf_read_ecma_array, checks_the_count_only_after_a_valid_member) {
    expect_refused(ecma(0) + key("a") + HALF_A_NUMBER);
    expect_refused(ecma(0) + key("a") + ecma(1) + END, TOO_SHORT);
    expect_refused(ecma(0) + key("a") + OBJECT + END, TOO_LONG);
}

TEST(amf_read_ecma_array, does_not_store_the_member_that_is_too_many) {
    const Decoded result = decode(ecma(1) + key("a") + NULL_VALUE + key("b") + OBJECT + END + END);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.value.type, AMF_Type::ECMAArray);
    EXPECT_EQ(result.value.members.size(), 1U);
    EXPECT_EQ(result.value.find_member("a").type, AMF_Type::Null);
}

TEST(amf_read_ecma_array, reports_a_wrong_inner_array_once) {
    const Bytes outer = OBJECT + key("a") + number_value(1) + key("o") + ecma(1) + key("e");
    for (const auto& [inner, printed] :
         {std::pair(ecma(1) + END, TOO_SHORT), std::pair(ecma(0) + key("x") + NULL_VALUE + END, TOO_LONG)}) {
        const Decoded result = decode(outer + inner + END + END);
        EXPECT_FALSE(result.ok);
        EXPECT_EQ(result.printed, printed);
        EXPECT_EQ(result.value.members.size(), 1U);
    }
}

TEST(amf_read_ecma_array, closes_all_open_arrays_at_the_end_of_the_data) {
    const Decoded result = decode(ecma(1) + key("a") + ecma(1) + key("b") + OBJECT + key("c") + NULL_VALUE);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.value.find_member("a").find_member("b").find_member("c").type, AMF_Type::Null);
    expect_refused(ecma(2) + key("a") + ecma(1) + key("b") + OBJECT + key("c") + NULL_VALUE, TOO_SHORT);
}

TEST(amf_read_ecma_array, reads_a_bare_body_into_a_value_without_clearing_it) {
    AMF_Value v;
    v.type = AMF_Type::ECMAArray;
    GuardedBytes body(be32(1) + key("a") + NULL_VALUE + END);
    const unsigned char* s = body.begin();
    EXPECT_TRUE(AMF_ReadECMAArrayBody(v, s, body.end()));
    EXPECT_EQ(s, body.end());
    EXPECT_EQ(v.members.size(), 1U);

    s = body.begin();
    EXPECT_FALSE(AMF_ReadECMAArrayBody(v, s, body.begin() + 3));
    EXPECT_EQ(s, body.begin());
    EXPECT_EQ(v.members.size(), 1U);
}

TEST(amf_read, survives_truncation_at_every_byte) {
    // A value may end after a piece only where the end of the data closes every object that is open.
    const struct {
        Bytes bytes;
        bool complete_after;
    } pieces[] = {
        {OBJECT, true},
        {key("str"), false},
        {string_value("text"), true},
        {key("obj"), false},
        {OBJECT, true},
        {key("num"), false},
        {number_value(1.5), true},
        {END, true},
        {key("arr"), false},
        {ecma(2), false},
        {key("one"), false},
        {Bytes{0x01, 0x01}, false},
        {key("two"), false},
        {Bytes{0x0C, 0, 0, 0, 3, 'a', 'b', 'c'}, true},
        {END, true},
        {key("last"), false},
        {NULL_VALUE, true},
        {END, true},
    };
    Bytes bytes;
    for (const auto& piece : pieces) {
        for (std::size_t i = 0; i < piece.bytes.size(); ++i) {
            bytes.push_back(piece.bytes[i]);
            const Decoded result = decode(bytes);
            const bool complete = i + 1 == piece.bytes.size() && piece.complete_after;
            EXPECT_EQ(result.ok, complete) << "cut after byte " << bytes.size();
            EXPECT_EQ(result.consumed, complete ? bytes.size() : 0) << "cut after byte " << bytes.size();
            EXPECT_EQ(result.value.type, AMF_Type::Object);
        }
    }
}

TEST(amf_read_depth, decodes_and_destroys_the_deepest_object) {
    const Bytes bytes = nested_object_bytes(DEEPEST_NEST);
    ASSERT_LE(bytes.size(), 1048575U);
    on_small_stack_in_time([&bytes] {
        AMF_Value v;
        const unsigned char* s = bytes.data();
        EXPECT_TRUE(AMF_ReadValue(v, s, bytes.data() + bytes.size()));
        EXPECT_EQ(s, bytes.data() + bytes.size());
        EXPECT_EQ(nested_levels(v), DEEPEST_NEST);
    });
}

TEST(amf_read_depth, refuses_the_deepest_object_for_its_last_byte) {
    Bytes bytes = nested_object_bytes(DEEPEST_NEST - 1);
    for (const Bytes& broken : {Bytes{0x00}, key("") + Bytes{0x0A}, key("a"), key("") + Bytes{0x08, 0x00}}) {
        const Bytes all = bytes + broken;
        on_small_stack_in_time([&all] {
            AMF_Value v;
            const unsigned char* s = all.data();
            EXPECT_FALSE(AMF_ReadValue(v, s, all.data() + all.size()));
            EXPECT_EQ(s, all.data());
            EXPECT_EQ(v.type, AMF_Type::Object);
            EXPECT_TRUE(v.members.empty());
        });
    }
}

TEST(amf_read_depth, refuses_an_object_that_is_malformed_after_a_deep_member) {
    const Bytes nest = nested_object_bytes(100000);
    Bytes bytes = OBJECT + key("deep") + nest;
    for (std::size_t i = 0; i < 100001; ++i) {
        bytes.insert(bytes.end(), END.begin(), END.end());
    }
    bytes.push_back(0x00);
    on_small_stack_in_time([&bytes] {
        AMF_Value v;
        const unsigned char* s = bytes.data();
        EXPECT_FALSE(AMF_ReadValue(v, s, bytes.data() + bytes.size()));
        EXPECT_EQ(nested_levels(v.find_member("deep")), 100000U);
    });
}

TEST(amf_read_depth, decodes_the_deepest_array) {
    static constexpr std::size_t LEVELS = 149794;
    Bytes bytes;
    for (std::size_t i = 0; i < LEVELS; ++i) {
        bytes.insert(bytes.end(), {0x08, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00});
    }
    bytes.push_back(0x05);
    on_small_stack_in_time([&bytes] {
        AMF_Value v;
        const unsigned char* s = bytes.data();
        EXPECT_TRUE(AMF_ReadValue(v, s, bytes.data() + bytes.size()));
        EXPECT_EQ(nested_levels(v), LEVELS);
    });
}

TEST(amf_read_depth, replaces_a_deep_member_by_a_deep_member) {
    Bytes bytes = OBJECT;
    for (const char* name : {"x", "x"}) {
        bytes = bytes + key(name) + nested_object_bytes(80000);
        for (std::size_t i = 0; i < 80001; ++i) {
            bytes.insert(bytes.end(), END.begin(), END.end());
        }
    }
    on_small_stack_in_time([&bytes] {
        AMF_Value v;
        const unsigned char* s = bytes.data();
        EXPECT_TRUE(AMF_ReadValue(v, s, bytes.data() + bytes.size()));
        EXPECT_EQ(v.members.size(), 1U);
        EXPECT_EQ(nested_levels(v.find_member("x")), 80000U);
    });
}

TEST(amf_read_width, decodes_as_many_members_as_a_message_holds_in_any_order) {
    for (const bool ascending : {true, false}) {
        const Bytes bytes = wide_object_bytes(MOST_MEMBERS, ascending);
        ASSERT_LE(bytes.size(), 1048575U);
        on_small_stack_in_time([&bytes] {
            AMF_Value v;
            const unsigned char* s = bytes.data();
            EXPECT_TRUE(AMF_ReadValue(v, s, bytes.data() + bytes.size()));
            EXPECT_EQ(v.members.size(), MOST_MEMBERS);
            EXPECT_EQ(v.members.begin()->first, three_byte_key(0));
        });
    }
}

// The cursor lies where the string is stored, so the string's bytes become the cursor.
TEST(amf_read_death, a_cursor_that_is_overwritten_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto read_over_the_cursor = [](auto read, const Bytes& length) {
        const Bytes far_beyond{0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0};
        const Bytes bytes = length + far_beyond;
        std::string out;
        out.reserve(64);
        const unsigned char*& s = *new (out.data()) const unsigned char*(bytes.data());
        (void)read(out, s, bytes.data() + bytes.size());
    };
    EXPECT_EXIT(read_over_the_cursor(AMF_ReadStringU16, {0, 8}), testing::KilledBySignal(SIGABRT),
                assertion_line("read_string", "s <= sf"));
    EXPECT_EXIT(read_over_the_cursor(AMF_ReadStringU32, be32(8)), testing::KilledBySignal(SIGABRT),
                assertion_line("read_string", "s <= sf"));
}

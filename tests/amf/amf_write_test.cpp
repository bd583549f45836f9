#include "amf/amf_write.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <csignal>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "amf/amf_read.h"
#include "tests/amf/hostile_values.h"
#include "tests/support/assertion_line.h"
#include "tests/support/guarded_bytes.h"
#include "tests/support/page_example.h"

namespace {

using testing::ElementsAre;

constexpr std::size_t ENOUGH = 2 * 1024 * 1024;

// Encodes with room bytes before an unwritable page. Expects that a refusal does not move the cursor. Returns
// the bytes that were written; none if refused.
Bytes encode(const AMF_Value& v, std::size_t room = 4096) {
    GuardedBytes buffer(room);
    unsigned char* d = buffer.begin();
    if (!AMF_WriteValue(d, buffer.end(), v)) {
        EXPECT_EQ(d, buffer.begin());
        return {};
    }
    return {buffer.begin(), d};
}

// Expects that v fits into exactly as many bytes as it takes, and not into fewer.
void expect_refused_in_less_room(const AMF_Value& v) {
    const Bytes whole = encode(v, ENOUGH);
    ASSERT_FALSE(whole.empty());
    EXPECT_EQ(encode(v, whole.size()), whole);
    for (std::size_t room = 0; room < whole.size(); ++room) {
        EXPECT_TRUE(encode(v, room).empty()) << "room for " << room << " of " << whole.size();
    }
}

AMF_Value of_type(AMF_Type type) {
    AMF_Value v;
    v.type = type;
    return v;
}

AMF_Value number(double x) {
    AMF_Value v;
    v.set_number(x);
    return v;
}

AMF_Value text(std::string_view s) {
    AMF_Value v;
    v.set_string(s);
    return v;
}

// Expects that the values, one after another, are encoded as the example on the page.
void expect_encoded(const std::vector<AMF_Value>& values, const std::string& example) {
    std::string bytes;
    for (const AMF_Value& v : values) {
        const Bytes encoded = encode(v);
        bytes.append(encoded.begin(), encoded.end());
    }
    EXPECT_EQ(bytes, example_bytes(example));
}

}  // namespace

TEST(amf_write, encodes_the_values_of_the_page) {
    AMF_Value yes = of_type(AMF_Type::Boolean);
    yes.boolean = 1;
    AMF_Value object = of_type(AMF_Type::Object);
    object.member("a").set_null();
    AMF_Value array = of_type(AMF_Type::ECMAArray);
    array.member("b").set_number(2);
    AMF_Value long_string = of_type(AMF_Type::LongString);
    long_string.string = "cd";
    AMF_Value document = of_type(AMF_Type::XMLDocument);
    document.string = "<x/>";
    expect_encoded({number(1), yes, text("ab"), object, of_type(AMF_Type::Null), of_type(AMF_Type::Undefined),
                    array, long_string, document},
                   "amf0_values");
}

TEST(amf_write, encodes_the_messages_of_the_page) {
    AMF_Value command = of_type(AMF_Type::Object);
    command.member("objectEncoding").set_number(0);
    command.member("app").set_string("ombrex-live");
    expect_encoded({text("connect"), number(1), command}, "amf0_connect");

    AMF_Value metadata = of_type(AMF_Type::ECMAArray);
    metadata.member("width").set_number(1280);
    metadata.member("height").set_number(720);
    expect_encoded({text("onMetaData"), metadata}, "amf0_metadata");
}

TEST(amf_write, encodes_numbers_bit_by_bit) {
    EXPECT_THAT(encode(number(1)), ElementsAre(0x00, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(encode(number(std::bit_cast<double>(0x0102030405060708ULL))),
                ElementsAre(0x00, 1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_THAT(encode(number(std::bit_cast<double>(0xFFF8000000000001ULL))),
                ElementsAre(0x00, 0xFF, 0xF8, 0, 0, 0, 0, 0, 1));
}

TEST(amf_write, encodes_the_byte_of_a_boolean_unchanged) {
    for (const std::uint8_t byte : Bytes{0, 1, 2, 255}) {
        AMF_Value v = of_type(AMF_Type::Boolean);
        v.boolean = byte;
        EXPECT_THAT(encode(v), ElementsAre(0x01, byte));
    }
}

TEST(amf_write, encodes_strings_with_a_16_bit_length) {
    EXPECT_THAT(encode(text("ab")), ElementsAre(0x02, 0x00, 0x02, 0x61, 0x62));
    EXPECT_THAT(encode(text("")), ElementsAre(0x02, 0x00, 0x00));
    EXPECT_THAT(encode(text(std::string_view("\0", 1))), ElementsAre(0x02, 0x00, 0x01, 0x00));

    const Bytes longest = encode(text(std::string(65535, 'x')), ENOUGH);
    ASSERT_EQ(longest.size(), 3U + 65535);
    EXPECT_EQ(longest[1], 0xFF);
    EXPECT_EQ(longest[2], 0xFF);
}

TEST(amf_write, refuses_a_string_type_with_more_than_a_16_bit_length) {
    AMF_Value v = of_type(AMF_Type::String);
    v.string.assign(65536, 'x');
    EXPECT_TRUE(encode(v, ENOUGH).empty());
}

TEST(amf_write, encodes_long_strings_and_xml_documents_with_a_32_bit_length) {
    for (const AMF_Type type : {AMF_Type::LongString, AMF_Type::XMLDocument}) {
        AMF_Value v = of_type(type);
        v.string = "ab";
        EXPECT_THAT(encode(v), ElementsAre(static_cast<unsigned char>(type), 0, 0, 0, 2, 'a', 'b'));
        v.string.assign(65536, 'x');
        const Bytes bytes = encode(v, ENOUGH);
        ASSERT_EQ(bytes.size(), 5U + 65536);
        EXPECT_EQ(bytes[2], 0x01);
    }
}

TEST(amf_write, encodes_longer_strings_than_are_decoded) {
    const Bytes bytes = encode(text(std::string(1048577, 'x')), ENOUGH);
    ASSERT_EQ(bytes.size(), 5U + 1048577);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 6), (Bytes{0x0C, 0x00, 0x10, 0x00, 0x01, 'x'}));
}

TEST(amf_write, encodes_null_and_undefined_as_one_byte) {
    EXPECT_THAT(encode(of_type(AMF_Type::Null)), ElementsAre(0x05));
    EXPECT_THAT(encode(AMF_UndefinedValue), ElementsAre(0x06));
}

TEST(amf_write, encodes_members_in_key_order) {
    AMF_Value v = of_type(AMF_Type::Object);
    v.member("mode").set_number(1);
    v.member("capabilities").set_number(31);
    const std::string_view expected(
        "\x03\x00\x0c"
        "capabilities\x00\x40\x3f\0\0\0\0\0\0\x00\x04"
        "mode\x00\x3f\xf0\0\0\0\0\0\0\x00\x00\x09",
        1 + 2 + 12 + 9 + 2 + 4 + 9 + 3);
    EXPECT_EQ(encode(v), Bytes(expected.begin(), expected.end()));
}

TEST(amf_write, encodes_empty_objects_and_arrays) {
    EXPECT_THAT(encode(of_type(AMF_Type::Object)), ElementsAre(0x03, 0, 0, 0x09));
    EXPECT_THAT(encode(of_type(AMF_Type::ECMAArray)), ElementsAre(0x08, 0, 0, 0, 0, 0, 0, 0x09));
}

TEST(amf_write, encodes_the_number_of_members_of_an_array) {
    AMF_Value v = of_type(AMF_Type::ECMAArray);
    v.member("b").set_null();
    v.member("a").type = AMF_Type::Object;
    v.member("a").member("in").set_null();
    EXPECT_THAT(encode(v), ElementsAre(0x08, 0, 0, 0, 2, 0, 1, 'a', 0x03, 0, 2, 'i', 'n', 0x05, 0, 0, 0x09, 0,
                                       1, 'b', 0x05, 0, 0, 0x09));
}

TEST(amf_write, encodes_the_empty_key_as_a_member_like_any_other) {
    AMF_Value v = of_type(AMF_Type::Object);
    v.member("").set_null();
    EXPECT_THAT(encode(v), ElementsAre(0x03, 0, 0, 0x05, 0, 0, 0x09));
}

TEST(amf_write, refuses_the_types_that_cannot_be_encoded) {
    for (const AMF_Type type :
         {AMF_Type::MovieClip, AMF_Type::Reference, AMF_Type::ObjectEnd, AMF_Type::StrictArray,
          AMF_Type::Date, AMF_Type::Unsupported, AMF_Type::Recordset, AMF_Type::TypedObject, AMF_Type{0x11},
          AMF_Type{0xFF}, AMF_Type{0x105}}) {
        EXPECT_TRUE(encode(of_type(type)).empty()) << static_cast<std::uint32_t>(type);

        AMF_Value object = of_type(AMF_Type::Object);
        object.member("a") = of_type(type);
        EXPECT_TRUE(encode(object).empty()) << "as the only member";
        AMF_Value outer = of_type(AMF_Type::ECMAArray);
        outer.member("a").set_number(1);
        outer.member("o") = object;
        EXPECT_TRUE(encode(outer).empty()) << "two levels down";
    }
}

TEST(amf_write, refuses_a_key_with_more_than_a_16_bit_length) {
    AMF_Value fits = of_type(AMF_Type::Object);
    fits.member(std::string(65535, 'k')).set_null();
    EXPECT_EQ(encode(fits, ENOUGH).size(), 1U + 2 + 65535 + 1 + 3);
    AMF_Value too_long = of_type(AMF_Type::Object);
    too_long.member(std::string(65536, 'k')).set_null();
    EXPECT_TRUE(encode(too_long, ENOUGH).empty());
}

TEST(amf_write, fills_the_buffer_to_the_last_byte_and_refuses_one_byte_less) {
    const Bytes nine = encode(number(1), 9);
    EXPECT_EQ(nine.size(), 9U);
    EXPECT_TRUE(encode(number(1), 8).empty());

    expect_refused_in_less_room(number(1));
    expect_refused_in_less_room(text("text"));
    expect_refused_in_less_room(of_type(AMF_Type::Null));
    AMF_Value v = of_type(AMF_Type::Object);
    v.member("").set_null();
    v.member("arr").type = AMF_Type::ECMAArray;
    v.member("arr").member("n").set_number(1);
    v.member("arr").member("o").type = AMF_Type::Object;
    v.member("flag").type = AMF_Type::Boolean;
    v.member("long").type = AMF_Type::LongString;
    v.member("long").string = "long";
    v.member("xml").type = AMF_Type::XMLDocument;
    v.member("s").set_string("s");
    expect_refused_in_less_room(v);
}

TEST(amf_write, writes_bare_strings_only_as_a_whole) {
    GuardedBytes buffer(6);
    unsigned char* d = buffer.begin();
    EXPECT_FALSE(AMF_WriteStringU16(d, buffer.end(), "12345"));
    EXPECT_FALSE(AMF_WriteStringU32(d, buffer.end(), "123"));
    EXPECT_FALSE(AMF_WriteStringU16(d, d + 1, ""));
    EXPECT_FALSE(AMF_WriteStringU32(d, d + 3, ""));
    EXPECT_EQ(d, buffer.begin());
    EXPECT_EQ(Bytes(buffer.begin(), buffer.end()), Bytes(6, 0));

    EXPECT_TRUE(AMF_WriteStringU16(d, buffer.end(), "1234"));
    EXPECT_EQ(d, buffer.end());
    EXPECT_EQ(Bytes(buffer.begin(), buffer.end()), (Bytes{0, 4, '1', '2', '3', '4'}));

    d = buffer.begin();
    EXPECT_TRUE(AMF_WriteStringU32(d, buffer.end(), "ab"));
    EXPECT_EQ(d, buffer.end());
    EXPECT_EQ(Bytes(buffer.begin(), buffer.end()), (Bytes{0, 0, 0, 2, 'a', 'b'}));
}

TEST(amf_write, limits_a_bare_string_with_a_16_bit_length) {
    GuardedBytes buffer(65538);
    unsigned char* d = buffer.begin();
    EXPECT_FALSE(AMF_WriteStringU16(d, buffer.end(), std::string(65536, 'x')));
    EXPECT_EQ(d, buffer.begin());
    EXPECT_TRUE(AMF_WriteStringU16(d, buffer.end(), std::string(65535, 'x')));
    EXPECT_EQ(d, buffer.end() - 1);
}

TEST(amf_write, writes_bare_payloads) {
    GuardedBytes buffer(9);
    unsigned char* d = buffer.begin();
    EXPECT_TRUE(AMF_WriteNumber(d, buffer.end(), number(3)));
    EXPECT_EQ(d, buffer.begin() + 8);
    EXPECT_FALSE(AMF_WriteNumber(d, buffer.end(), number(3)));
    EXPECT_EQ(d, buffer.begin() + 8);
    AMF_Value boolean;
    boolean.boolean = 2;
    EXPECT_TRUE(AMF_WriteBoolean(d, buffer.end(), boolean));
    EXPECT_EQ(d, buffer.end());
    EXPECT_FALSE(AMF_WriteBoolean(d, buffer.end(), boolean));
    EXPECT_EQ(d, buffer.end());
    EXPECT_EQ(Bytes(buffer.begin(), buffer.end()), (Bytes{0x40, 0x08, 0, 0, 0, 0, 0, 0, 2}));
}

TEST(amf_write, writes_bare_bodies) {
    AMF_Value v = of_type(AMF_Type::Object);
    v.member("a").set_null();
    GuardedBytes object(7);
    unsigned char* d = object.begin();
    EXPECT_FALSE(AMF_WriteObjectBody(d, object.end() - 1, v));
    EXPECT_EQ(d, object.begin());
    EXPECT_TRUE(AMF_WriteObjectBody(d, object.end(), v));
    EXPECT_EQ(d, object.end());
    EXPECT_EQ(Bytes(object.begin(), object.end()), (Bytes{0, 1, 'a', 0x05, 0, 0, 0x09}));

    v.type = AMF_Type::ECMAArray;
    GuardedBytes array(11);
    d = array.begin();
    EXPECT_FALSE(AMF_WriteObjectBody(d, array.begin() + 3, v));
    EXPECT_EQ(d, array.begin());
    EXPECT_TRUE(AMF_WriteObjectBody(d, array.end(), v));
    EXPECT_EQ(Bytes(array.begin(), array.end()), (Bytes{0, 0, 0, 1, 0, 1, 'a', 0x05, 0, 0, 0x09}));
}

TEST(amf_write, writes_values_one_after_another_on_one_cursor) {
    GuardedBytes buffer(14);
    unsigned char* d = buffer.begin();
    EXPECT_TRUE(AMF_WriteValue(d, buffer.end(), text("x")));
    EXPECT_TRUE(AMF_WriteValue(d, buffer.end(), number(1)));
    EXPECT_TRUE(AMF_WriteValue(d, buffer.end(), of_type(AMF_Type::Null)));
    EXPECT_EQ(d, buffer.end());
    EXPECT_FALSE(AMF_WriteValue(d, buffer.end(), of_type(AMF_Type::Null)));
    EXPECT_EQ(d, buffer.end());
}

TEST(amf_write, encodes_a_decoded_value_to_the_same_bytes) {
    const Bytes bytes{0x03, 0, 1, 'a', 0x08, 0,    0, 0,   2,    0,    1, 'n', 0x00, 0x3F, 0xF0, 0,
                      0,    0, 0, 0,   0,    0,    1, 'x', 0x0F, 0,    0, 0,   1,    '<',  0,    0,
                      0x09, 0, 1, 'b', 0x01, 0x02, 0, 1,   'c',  0x03, 0, 0,   0x09, 0,    0,    0x09};
    AMF_Value v;
    const unsigned char* s = bytes.data();
    ASSERT_TRUE(AMF_ReadValue(v, s, bytes.data() + bytes.size()));
    ASSERT_EQ(s, bytes.data() + bytes.size());
    EXPECT_EQ(encode(v), bytes);
}

TEST(amf_write_depth, encodes_the_deepest_object) {
    const AMF_Value v = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&v] {
        const Bytes bytes = encode(v, 4 * 1024 * 1024);
        const Bytes opening = nested_object_bytes(DEEPEST_NEST);
        ASSERT_EQ(bytes.size(), opening.size() + 3 * (DEEPEST_NEST + 1));
        EXPECT_TRUE(std::equal(opening.begin(), opening.end(), bytes.begin()));
        EXPECT_EQ(Bytes(bytes.end() - 6, bytes.end()), (Bytes{0, 0, 0x09, 0, 0, 0x09}));
    });
}

TEST(amf_write_depth, refuses_the_deepest_object_in_the_buffer_of_a_reply) {
    const AMF_Value v = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&v] { EXPECT_TRUE(encode(v, 65536).empty()); });
}

TEST(amf_write_depth, refuses_the_deepest_object_for_its_innermost_value) {
    AMF_Value v = nested_object(DEEPEST_NEST);
    AMF_Value* innermost = &v;
    while (!innermost->members.empty()) {
        innermost = &innermost->member("");
    }
    innermost->type = AMF_Type::Date;
    on_small_stack_in_time([&v] { EXPECT_TRUE(encode(v, 4 * 1024 * 1024).empty()); });
}

TEST(amf_write_width, encodes_as_many_members_as_a_message_holds) {
    AMF_Value v = of_type(AMF_Type::ECMAArray);
    for (std::size_t i = 0; i < MOST_MEMBERS; ++i) {
        v.member(three_byte_key(i)).set_null();
    }
    on_small_stack_in_time([&v] {
        const Bytes bytes = encode(v, ENOUGH);
        ASSERT_EQ(bytes.size(), 5 + 6 * MOST_MEMBERS + 3);
        EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 5), (Bytes{0x08, 0x00, 0x02, 0xA7, 0xB0}));
    });
}

// The cursor lies in its own buffer, so the string's bytes become the cursor.
TEST(amf_write_death, a_cursor_that_is_overwritten_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto write_over_the_cursor = [](auto write, std::size_t length_bytes) {
        constexpr std::string_view FAR_BEYOND("\0\0\xFF\xFF\xFF\x7F\0\0", 8);
        alignas(unsigned char*) unsigned char buffer[64];
        unsigned char*& d = *new (buffer + 8) unsigned char*(buffer + 8 - length_bytes);
        (void)write(d, buffer + sizeof buffer, FAR_BEYOND);
    };
    EXPECT_EXIT(write_over_the_cursor(AMF_WriteStringU16, 2), testing::KilledBySignal(SIGABRT),
                assertion_line("write_bytes", "d <= df"));
    EXPECT_EXIT(write_over_the_cursor(AMF_WriteStringU32, 4), testing::KilledBySignal(SIGABRT),
                assertion_line("write_bytes", "d <= df"));
}

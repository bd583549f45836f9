#include "amf/amf_dump.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/amf/hostile_values.h"

namespace {

constexpr std::string_view CUT = "WARNING: AMF dump cut\n";

std::string dump(const AMF_Value& v, const std::string& indent = "") {
    testing::internal::CaptureStderr();
    AMF_DumpValue(v, indent);
    return testing::internal::GetCapturedStderr();
}

AMF_Value of_type(AMF_Type type) {
    AMF_Value v;
    v.type = type;
    return v;
}

AMF_Value command_object() {
    AMF_Value v = of_type(AMF_Type::Object);
    v.member("objectEncoding").set_number(0);
    v.member("app").set_string("live");
    return v;
}

// A string whose dump, including type line and quotes, has exactly this many bytes.
AMF_Value string_that_prints_as(std::size_t bytes) {
    constexpr std::string_view AROUND = "AMF var LongString\n  Value: ''\n";
    AMF_Value v;
    v.set_string(std::string(bytes - AROUND.size(), 'x'));
    return v;
}

// Returns the size of each single write to standard error.
std::vector<std::size_t> sizes_of_writes(const AMF_Value& v) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    std::vector<std::size_t> sizes;
    std::thread reader([&] {
        std::vector<char> block(1024 * 1024);
        for (;;) {
            const ssize_t got = recv(ends[0], block.data(), block.size(), 0);
            if (got <= 0) {
                return;
            }
            EXPECT_EQ(block[static_cast<std::size_t>(got) - 1], '\n');
            sizes.push_back(static_cast<std::size_t>(got));
        }
    });
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    AMF_DumpValue(v, "");
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(ends[1]);
    reader.join();
    close(ends[0]);
    return sizes;
}

constexpr std::size_t FITTING_MEMBERS = 25000;

AMF_Value members_to_print(std::size_t count) {
    AMF_Value v = of_type(AMF_Type::Object);
    for (std::size_t i = 0; i < count; ++i) {
        v.member("k" + std::to_string(100000 + i)).set_null();
    }
    return v;
}

}  // namespace

TEST(amf_dump, prints_a_command_object) {
    EXPECT_EQ(dump(command_object()),
              "AMF var Object\n"
              "  Object: {\n"
              "    'app':\n"
              "      AMF var String\n"
              "        Value: 'live'\n"
              "    'objectEncoding':\n"
              "      AMF var Number\n"
              "        Value: 0.000\n"
              "  }\n");
}

TEST(amf_dump, starts_every_line_with_the_indentation) {
    EXPECT_EQ(dump(command_object(), "\t"),
              "\tAMF var Object\n"
              "\t  Object: {\n"
              "\t    'app':\n"
              "\t      AMF var String\n"
              "\t        Value: 'live'\n"
              "\t    'objectEncoding':\n"
              "\t      AMF var Number\n"
              "\t        Value: 0.000\n"
              "\t  }\n");
}

TEST(amf_dump, prints_the_members_alone) {
    testing::internal::CaptureStderr();
    AMF_DumpMembers(command_object(), "\t");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\t  'app':\n"
              "\t    AMF var String\n"
              "\t      Value: 'live'\n"
              "\t  'objectEncoding':\n"
              "\t    AMF var Number\n"
              "\t      Value: 0.000\n");
    testing::internal::CaptureStderr();
    AMF_DumpMembers(of_type(AMF_Type::Null), "\t");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(amf_dump, indents_each_level_by_six) {
    AMF_Value v = of_type(AMF_Type::Object);
    AMF_Value& inner = v.member("a");
    inner.type = AMF_Type::ECMAArray;
    inner.member("b").type = AMF_Type::Object;
    inner.member("c").set_null();
    EXPECT_EQ(dump(v),
              "AMF var Object\n"
              "  Object: {\n"
              "    'a':\n"
              "      AMF var ECMAArray\n"
              "        Object: {\n"
              "          'b':\n"
              "            AMF var Object\n"
              "              Object: {\n"
              "              }\n"
              "          'c':\n"
              "            AMF var Null\n"
              "        }\n"
              "  }\n");
}

TEST(amf_dump, prints_only_braces_for_an_empty_object_or_array) {
    EXPECT_EQ(dump(of_type(AMF_Type::Object)), "AMF var Object\n  Object: {\n  }\n");
    EXPECT_EQ(dump(of_type(AMF_Type::ECMAArray)), "AMF var ECMAArray\n  Object: {\n  }\n");
}

TEST(amf_dump, prints_the_type_line_alone_for_the_types_without_payload) {
    const struct {
        AMF_Type type;
        const char* name;
    } rows[] = {
        {AMF_Type::MovieClip, "MovieClip"},
        {AMF_Type::Null, "Null"},
        {AMF_Type::Undefined, "Undefined"},
        {AMF_Type::Reference, "Reference"},
        {AMF_Type::ObjectEnd, "ObjectEnd"},
        {AMF_Type::StrictArray, "StrictArray"},
        {AMF_Type::Date, "Date"},
        {AMF_Type::Unsupported, "Unsupported"},
        {AMF_Type::Recordset, "Recordset"},
        {AMF_Type::TypedObject, "TypedObject"},
        {AMF_Type{17}, ""},
        {AMF_Type{255}, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(dump(of_type(row.type)), std::string("AMF var ") + row.name + "\n");
    }
}

TEST(amf_dump, prints_numbers_with_three_decimals) {
    const struct {
        double number;
        std::string text;
    } rows[] = {
        {1, "1.000"},
        {29.97, "29.970"},
        {0.0005, "0.001"},
        {-2.5, "-2.500"},
        {1e21, "1000000000000000000000.000"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {-std::numeric_limits<double>::infinity(), "-inf"},
        {std::numeric_limits<double>::quiet_NaN(), "nan"},
    };
    for (const auto& row : rows) {
        AMF_Value v;
        v.set_number(row.number);
        EXPECT_EQ(dump(v), "AMF var Number\n  Value: " + row.text + "\n");
    }
}

TEST(amf_dump, prints_the_largest_number_whole) {
    AMF_Value v;
    v.set_number(-std::numeric_limits<double>::max());
    const std::string text = dump(v);
    EXPECT_EQ(text.size(), std::string_view("AMF var Number\n  Value: -.000\n").size() + 309);
    EXPECT_EQ(text.substr(0, 30), "AMF var Number\n  Value: -17976");
    EXPECT_EQ(text.substr(text.size() - 5), ".000\n");
}

TEST(amf_dump, prints_every_byte_but_zero_as_true) {
    for (const std::uint8_t byte : Bytes{0, 1, 2, 255}) {
        AMF_Value v = of_type(AMF_Type::Boolean);
        v.boolean = byte;
        EXPECT_EQ(dump(v), std::string("AMF var Boolean\n  Value: ") + (byte == 0 ? "false\n" : "true\n"));
    }
}

TEST(amf_dump, prints_all_kinds_of_strings_alike) {
    for (const auto& [type, name] :
         {std::pair(AMF_Type::String, "String"), std::pair(AMF_Type::LongString, "LongString"),
          std::pair(AMF_Type::XMLDocument, "XMLDocument")}) {
        AMF_Value v = of_type(type);
        v.string = "100%s";
        EXPECT_EQ(dump(v), std::string("AMF var ") + name + "\n  Value: '100%s'\n");
    }
}

TEST(amf_dump, stops_keys_and_strings_at_the_first_zero_byte) {
    AMF_Value v = of_type(AMF_Type::Object);
    v.member(std::string_view("k\0l", 3)).set_string(std::string_view("a\0b", 3));
    EXPECT_EQ(dump(v),
              "AMF var Object\n  Object: {\n    'k':\n      AMF var String\n        Value: 'a'\n  }\n");
}

TEST(amf_dump, writes_a_small_dump_at_once_and_a_large_one_in_large_blocks) {
    EXPECT_EQ(sizes_of_writes(command_object()).size(), 1U);

    AMF_Value wide = of_type(AMF_Type::Object);
    for (std::size_t i = 0; i < 20000; ++i) {
        wide.member("key" + std::to_string(i)).set_null();
    }
    const std::vector<std::size_t> sizes = sizes_of_writes(wide);
    ASSERT_GT(sizes.size(), 2U);
    for (std::size_t i = 0; i + 1 < sizes.size(); ++i) {
        EXPECT_GE(sizes[i], 64U * 1024);
    }
}

TEST(amf_dump, prints_a_mebibyte_whole) {
    const std::string text = dump(string_that_prints_as(AMF_DUMP_MAX_BYTES));
    EXPECT_EQ(text.size(), 1048576U);
    EXPECT_TRUE(text.ends_with("x'\n"));
}

TEST(amf_dump, cuts_before_the_first_line_beyond_a_mebibyte) {
    EXPECT_EQ(dump(string_that_prints_as(AMF_DUMP_MAX_BYTES + 1)), "AMF var LongString\n" + std::string(CUT));
}

TEST(amf_dump, prints_nothing_after_the_cut) {
    AMF_Value v = of_type(AMF_Type::Object);
    v.member("a").set_string(std::string(AMF_DUMP_MAX_BYTES, 'x'));
    v.member("b").set_null();
    EXPECT_EQ(dump(v),
              "AMF var Object\n  Object: {\n    'a':\n      AMF var LongString\n" + std::string(CUT));
}

TEST(amf_dump, is_cut_before_any_kind_of_line_past_the_limit) {
    const std::string before =
        "AMF var Object\n  Object: {\n    'a':\n      AMF var LongString\n        Value: '";
    const std::vector<std::string> lines = {"    'b':\n", "      AMF var Object\n", "        Object: {\n",
                                            "        }\n", "  }\n"};
    std::string kept = "'\n";
    for (const std::string& first_cut : lines) {
        AMF_Value v = of_type(AMF_Type::Object);
        const std::string filling(AMF_DUMP_MAX_BYTES - before.size() - kept.size(), 'x');
        v.member("a").set_string(filling);
        v.member("b").type = AMF_Type::Object;
        EXPECT_TRUE(dump(v) == before + filling + kept + std::string(CUT)) << first_cut;
        kept += first_cut;
    }
}

TEST(amf_dump, has_the_whole_limit_again_for_the_next_value) {
    (void)dump(string_that_prints_as(AMF_DUMP_MAX_BYTES + 1));
    EXPECT_EQ(dump(of_type(AMF_Type::Null)), "AMF var Null\n");
}

TEST(amf_dump_depth, cuts_the_deepest_object_without_walking_down_to_its_end) {
    const AMF_Value v = nested_object(DEEPEST_NEST);
    std::string text;
    on_small_stack_in_time([&] { text = dump(v, "\t"); });
    EXPECT_TRUE(text.starts_with("\tAMF var Object\n\t  Object: {\n\t    '':\n\t      AMF var Object\n"));
    ASSERT_TRUE(text.ends_with("\n" + std::string(CUT)));
    EXPECT_LE(text.size() - CUT.size(), AMF_DUMP_MAX_BYTES);
    // Some 340 levels fit, so the line that did not was about two thousand bytes long.
    EXPECT_GT(text.size(), AMF_DUMP_MAX_BYTES - 4000);
}

TEST(amf_dump_depth, prints_a_deep_object_that_fits_to_its_last_brace) {
    const AMF_Value v = nested_object(250);
    std::string text;
    on_small_stack_in_time([&] { text = dump(v); });
    EXPECT_TRUE(text.ends_with("\n        }\n  }\n"));
    EXPECT_EQ(text.find(CUT), std::string::npos);
}

TEST(amf_dump_width, prints_every_one_of_many_members_that_fit) {
    const AMF_Value v = members_to_print(FITTING_MEMBERS);
    std::string text;
    on_small_stack_in_time([&] { text = dump(v); });
    EXPECT_EQ(text.size(),
              std::string_view("AMF var Object\n  Object: {\n  }\n").size() +
                  FITTING_MEMBERS * std::string_view("    'k100000':\n      AMF var Null\n").size());
    EXPECT_TRUE(text.ends_with("    'k124999':\n      AMF var Null\n  }\n"));
}

TEST(amf_dump_width, is_cut_for_as_many_members_as_a_message_holds) {
    const AMF_Value v = members_to_print(MOST_MEMBERS);
    std::string text;
    on_small_stack_in_time([&] { text = dump(v); });
    EXPECT_TRUE(text.ends_with(CUT));
    EXPECT_LE(text.size() - CUT.size(), AMF_DUMP_MAX_BYTES);
    EXPECT_GT(text.size(), AMF_DUMP_MAX_BYTES);
}

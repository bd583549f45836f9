#include "amf/amf_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/amf/hostile_values.h"

namespace {

using testing::ElementsAre;

// Initialized together with the objects of static lifetime; the linker chooses the order of the files.
const AMF_Type LOOKED_UP_BEFORE_MAIN = AMF_Value().find_member("app").type;
const AMF_Value COPIED_BEFORE_MAIN = AMF_UndefinedValue;

std::vector<std::string> keys(const AMF_Value& v) {
    std::vector<std::string> result;
    for (const auto& [key, value] : v.members) {
        result.push_back(key);
    }
    return result;
}

// {'a': 1, 'o': {'s': 'text', 'n': 2}}
AMF_Value small_tree() {
    AMF_Value v;
    v.type = AMF_Type::Object;
    v.member("a").set_number(1);
    AMF_Value& inner = v.member("o");
    inner.type = AMF_Type::Object;
    inner.member("s").set_string("text");
    inner.member("n").set_number(2);
    return v;
}

void expect_small_tree(const AMF_Value& v) {
    EXPECT_EQ(v.type, AMF_Type::Object);
    EXPECT_THAT(keys(v), ElementsAre("a", "o"));
    EXPECT_EQ(v.find_member("a").type, AMF_Type::Number);
    EXPECT_EQ(v.find_member("a").number, 1.0);
    EXPECT_THAT(keys(v.find_member("o")), ElementsAre("n", "s"));
    EXPECT_EQ(v.find_member("o").find_member("s").string, "text");
    EXPECT_EQ(v.find_member("o").find_member("n").number, 2.0);
}

void expect_default_state(const AMF_Value& v) {
    EXPECT_EQ(v.type, AMF_Type::Undefined);
    EXPECT_TRUE(v.string.empty());
    EXPECT_TRUE(v.members.empty());
    EXPECT_EQ(v.members.size(), 0U);
    EXPECT_TRUE(v.members.begin() == v.members.end());
    EXPECT_TRUE(v.elements.empty());
    EXPECT_EQ(v.elements.size(), 0U);
    EXPECT_TRUE(v.elements.begin() == v.elements.end());
}

}  // namespace

TEST(amf_value, is_small_because_a_message_may_hold_very_many) {
    static_assert(sizeof(AMF_Value) <= 72);
    static_assert(std::is_nothrow_move_constructible_v<AMF_Value>);
    static_assert(std::is_nothrow_move_assignable_v<AMF_Value>);
    static_assert(sizeof(AMF_Type) == 4 && std::is_unsigned_v<std::underlying_type_t<AMF_Type>>);
}

TEST(amf_value, starts_undefined_and_empty) {
    expect_default_state(AMF_Value());
}

TEST(amf_value, holds_every_marker_byte_as_its_type) {
    for (std::uint32_t marker = 0; marker <= 0xFF; ++marker) {
        AMF_Value v;
        v.type = AMF_Type{marker};
        const AMF_Value copy(v);
        EXPECT_EQ(static_cast<std::uint32_t>(copy.type), marker);
    }
}

TEST(amf_value, iterates_members_in_key_order_and_not_in_order_of_insertion) {
    AMF_Value v;
    v.member("mode").set_number(1);
    v.member("fmsVer").set_string("x");
    v.member("capabilities").set_number(31);
    EXPECT_THAT(keys(v), ElementsAre("capabilities", "fmsVer", "mode"));
    EXPECT_EQ(v.members.size(), 3U);
    EXPECT_FALSE(v.members.empty());
}

TEST(amf_value, orders_keys_by_unsigned_bytes_with_a_prefix_first) {
    AMF_Value v;
    const std::string zero("a\0", 2);
    for (const std::string& key : {std::string("\xff"), std::string("a"), std::string("B"), std::string("ab"),
                                   zero, std::string(), std::string("\x80"), std::string("\x7f")}) {
        v.member(key);
    }
    EXPECT_THAT(keys(v), ElementsAre("", "B", "a", zero, "ab", "\x7f", "\x80", "\xff"));
}

TEST(amf_value, finds_a_member_by_exactly_its_key) {
    AMF_Value v;
    v.member("app").set_string("live");
    v.member(std::string_view("app\0x", 5)).set_string("other");
    EXPECT_EQ(v.find_member("app").string, "live");
    EXPECT_EQ(v.find_member(std::string_view("app\0x", 5)).string, "other");
    for (const std::string_view key : {"", "ap", "appx", "App", "APP"}) {
        EXPECT_EQ(&v.find_member(key), &AMF_UndefinedValue) << key;
    }
}

TEST(amf_value, reads_an_absent_member_as_undefined_with_an_empty_string) {
    AMF_Value object;
    object.type = AMF_Type::Object;
    object.member("a").set_number(1);
    AMF_Value number;
    number.set_number(7);
    for (const AMF_Value* v : std::vector<const AMF_Value*>{&object, &number, &AMF_UndefinedValue}) {
        const AMF_Value& found = v->find_member("app");
        EXPECT_EQ(&found, &AMF_UndefinedValue);
        expect_default_state(found);
    }
}

TEST(amf_value, finds_members_without_looking_at_the_type) {
    AMF_Value v = small_tree();
    v.type = AMF_Type::Number;
    EXPECT_EQ(v.find_member("a").number, 1.0);
}

TEST(amf_value, has_the_undefined_value_before_other_static_objects_are_initialised) {
    EXPECT_EQ(LOOKED_UP_BEFORE_MAIN, AMF_Type::Undefined);
    expect_default_state(COPIED_BEFORE_MAIN);
}

TEST(amf_value, inserts_a_member_once_and_leaves_the_type_unchanged) {
    AMF_Value v;
    AMF_Value& member = v.member("a");
    expect_default_state(member);
    member.set_number(1);
    v.member("b").set_number(2);
    EXPECT_EQ(&v.member("a"), &member);
    EXPECT_EQ(v.member("a").number, 1.0);
    EXPECT_EQ(v.members.size(), 2U);
    EXPECT_EQ(v.type, AMF_Type::Undefined);
}

TEST(amf_value, sets_numbers_and_null) {
    AMF_Value number;
    number.set_number(-0.5);
    EXPECT_EQ(number.type, AMF_Type::Number);
    EXPECT_EQ(number.number, -0.5);
    AMF_Value null;
    null.set_null();
    EXPECT_EQ(null.type, AMF_Type::Null);
}

TEST(amf_value, makes_strings_of_65536_bytes_or_more_long) {
    const struct {
        std::size_t length;
        AMF_Type type;
    } rows[] = {{0, AMF_Type::String}, {65535, AMF_Type::String}, {65536, AMF_Type::LongString}};
    for (const auto& row : rows) {
        AMF_Value v;
        v.set_string(std::string(row.length, 'x'));
        EXPECT_EQ(v.type, row.type) << row.length;
        EXPECT_EQ(v.string, std::string(row.length, 'x'));
    }
}

TEST(amf_value, keeps_zero_bytes_in_strings) {
    AMF_Value v;
    v.set_string(std::string_view("a\0b", 3));
    EXPECT_EQ(v.string, std::string("a\0b", 3));
}

TEST(amf_value, keeps_the_byte_of_a_boolean_when_copied) {
    AMF_Value v;
    v.type = AMF_Type::Boolean;
    v.boolean = 2;
    const AMF_Value copy(v);
    AMF_Value assigned;
    assigned = v;
    EXPECT_EQ(copy.boolean, 2);
    EXPECT_EQ(assigned.boolean, 2);
    EXPECT_EQ(assigned.type, AMF_Type::Boolean);
}

TEST(amf_value, copies_the_whole_tree_so_that_neither_side_sees_the_other_change) {
    AMF_Value source = small_tree();
    AMF_Value constructed(source);
    AMF_Value assigned;
    assigned.member("old").set_number(9);
    assigned = source;
    expect_small_tree(constructed);
    expect_small_tree(assigned);

    for (AMF_Value* copy : {&constructed, &assigned}) {
        copy->member("o").member("s").set_string("changed");
        copy->member("o").member("new").set_null();
        copy->member("a").reset();
    }
    expect_small_tree(source);

    const AMF_Value kept(source);
    source.reset();
    expect_small_tree(kept);
}

TEST(amf_value, moves_the_whole_tree_and_leaves_the_source_without_members) {
    AMF_Value source = small_tree();
    const AMF_Value* inner = &source.find_member("o");
    AMF_Value constructed(std::move(source));
    expect_small_tree(constructed);
    EXPECT_EQ(&constructed.find_member("o"), inner);
    EXPECT_TRUE(source.members.empty());  // NOLINT(bugprone-use-after-move): the header says what is left

    AMF_Value assigned;
    assigned.member("old").set_number(9);
    assigned = std::move(constructed);
    expect_small_tree(assigned);
    EXPECT_EQ(&assigned.find_member("o"), inner);
    EXPECT_TRUE(
        constructed.members.empty());  // NOLINT(bugprone-use-after-move): the header says what is left
}

TEST(amf_value, is_unchanged_when_assigned_to_itself) {
    AMF_Value v = small_tree();
    AMF_Value& same = v;
    v = same;
    expect_small_tree(v);
    v = std::move(same);
    expect_small_tree(v);
}

TEST(amf_value, can_be_assigned_a_value_from_inside_itself) {
    AMF_Value copied;
    copied.member("deep").member("er") = small_tree();
    copied = copied.find_member("deep").find_member("er");
    expect_small_tree(copied);

    AMF_Value moved;
    moved.member("deep").member("er") = small_tree();
    moved = std::move(moved.member("deep").member("er"));
    expect_small_tree(moved);
}

TEST(amf_value, can_take_a_copy_of_itself_as_a_member) {
    AMF_Value v = small_tree();
    v.member("self") = v;
    EXPECT_EQ(v.members.size(), 3U);
    EXPECT_EQ(v.find_member("self").find_member("o").find_member("s").string, "text");
}

TEST(amf_value, is_in_the_default_state_after_a_reset) {
    AMF_Value v = small_tree();
    v.string = "left over";
    v.elements.append().set_number(1);
    v.reset();
    expect_default_state(v);
}

TEST(amf_value, copies_and_moves_its_elements) {
    AMF_Value v;
    v.type = AMF_Type::StrictArray;
    v.elements.append().set_number(1);
    v.elements.append() = small_tree();
    AMF_Value& inner = v.elements.append();
    inner.elements.append().set_string("inner");

    AMF_Value copy(v);
    v.elements[0].set_number(5);
    v.elements[2].elements[0].set_string("changed");
    AMF_Value assigned;
    assigned = copy;
    const AMF_Value moved(std::move(copy));
    for (const AMF_Value* each : std::vector<const AMF_Value*>{&assigned, &moved}) {
        ASSERT_EQ(each->elements.size(), 3U);
        EXPECT_EQ(each->elements[0].number, 1.0);
        expect_small_tree(each->elements[1]);
        ASSERT_EQ(each->elements[2].elements.size(), 1U);
        EXPECT_EQ(each->elements[2].elements[0].string, "inner");
        EXPECT_EQ(each->elements.begin()->number, 1.0);
    }
}

TEST(amf_value_depth, copies_the_deepest_tree) {
    const AMF_Value source = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&source] {
        const AMF_Value copy(source);
        EXPECT_EQ(nested_levels(copy), DEEPEST_NEST);
    });
    EXPECT_EQ(nested_levels(source), DEEPEST_NEST);
}

TEST(amf_value_depth, assigns_the_deepest_tree_over_the_deepest_tree) {
    const AMF_Value source = nested_object(DEEPEST_NEST);
    AMF_Value target = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&] { target = source; });
    EXPECT_EQ(nested_levels(target), DEEPEST_NEST);
}

TEST(amf_value_depth, moves_a_value_over_the_deepest_tree) {
    AMF_Value target = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&] {
        target = small_tree();
        expect_small_tree(target);
    });
}

TEST(amf_value_depth, is_unchanged_when_the_deepest_tree_is_assigned_to_itself) {
    AMF_Value v = nested_object(DEEPEST_NEST);
    AMF_Value& same = v;
    on_small_stack_in_time([&] {
        v = same;
        v = std::move(same);
    });
    EXPECT_EQ(nested_levels(v), DEEPEST_NEST);
}

TEST(amf_value_depth, becomes_the_innermost_value_of_the_deepest_tree) {
    AMF_Value v = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&] {
        AMF_Value* innermost = &v;
        while (!innermost->members.empty()) {
            innermost = &innermost->member("");
        }
        innermost->set_string("bottom");
        v = std::move(*innermost);
        EXPECT_EQ(v.string, "bottom");
        EXPECT_TRUE(v.members.empty());
    });
}

TEST(amf_value_depth, resets_the_deepest_tree) {
    AMF_Value v = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&] { v.reset(); });
    expect_default_state(v);
}

TEST(amf_value_depth, destroys_the_deepest_tree) {
    on_small_stack_in_time([] {
        const AMF_Value v = nested_object(DEEPEST_NEST);
        EXPECT_EQ(v.members.size(), 1U);
    });
}

TEST(amf_value_depth, replaces_a_member_that_is_the_deepest_tree) {
    AMF_Value v;
    v.member("a") = nested_object(DEEPEST_NEST);
    on_small_stack_in_time([&] {
        AMF_Value small;
        small.set_number(1);
        v.members.store("a", std::move(small));
    });
    EXPECT_EQ(v.find_member("a").number, 1.0);
}

TEST(amf_value_depth, copies_and_destroys_alternately_nested_elements_and_members) {
    on_small_stack_in_time([] {
        AMF_Value v;
        AMF_Value* innermost = &v;
        for (std::size_t i = 0; i < 100000; ++i) {
            innermost->member("sibling").set_number(1);
            innermost->elements.append().set_number(2);
            innermost = i % 2 == 0 ? &innermost->elements.append() : &innermost->member("a");
        }
        const AMF_Value copy(v);
        std::size_t levels = 0;
        for (const AMF_Value* inner = &copy; !inner->members.empty(); ++levels) {
            EXPECT_EQ(inner->find_member("sibling").number, 1.0);
            EXPECT_EQ(inner->elements[0].number, 2.0);
            inner = levels % 2 == 0 ? &inner->elements[1] : &inner->find_member("a");
        }
        EXPECT_EQ(levels, 100000U);
    });
}

TEST(amf_value_width, fills_copies_and_resets_as_many_members_as_a_message_holds) {
    for (const bool ascending : {true, false}) {
        on_small_stack_in_time([ascending] {
            AMF_Value v;
            for (std::size_t i = 0; i < MOST_MEMBERS; ++i) {
                v.member(three_byte_key(ascending ? i : MOST_MEMBERS - 1 - i)).set_number(1);
            }
            AMF_Value copy(v);
            EXPECT_EQ(copy.members.size(), MOST_MEMBERS);
            EXPECT_EQ(copy.find_member(three_byte_key(MOST_MEMBERS / 2)).number, 1.0);
            copy.reset();
            EXPECT_TRUE(copy.members.empty());
        });
    }
}

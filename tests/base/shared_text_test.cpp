#include "base/shared_text.h"

#include <gtest/gtest.h>

TEST(shared_text, is_empty_until_a_text_is_assigned) {
    SharedText text;
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(text, "");
    text = "cam1";
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text, "cam1");
    EXPECT_EQ(text.str(), "cam1");
}

TEST(shared_text, a_copy_shares_the_bytes_and_keeps_them) {
    SharedText text;
    text = std::string(1000, 'n');
    const SharedText copy = text;
    EXPECT_EQ(copy.str().data(), text.str().data());
    text = "another";
    EXPECT_EQ(copy, std::string(1000, 'n'));
    EXPECT_EQ(text, "another");
}

TEST(shared_text, an_object_that_was_moved_from_still_has_a_text) {
    SharedText text;
    text = "cam1";
    const SharedText moved = std::move(text);
    EXPECT_EQ(moved, "cam1");
    EXPECT_EQ(text, "cam1");
}

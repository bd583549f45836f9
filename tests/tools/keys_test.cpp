#include "tools/v9_rtmp_ctl/keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(keys, characters_and_editing_keys_are_recognized) {
    EXPECT_THAT(decode_keys("q /"), ElementsAre(Key{KeyKind::CHARACTER, 'q'}, Key{KeyKind::CHARACTER, ' '},
                                                Key{KeyKind::CHARACTER, '/'}));
    EXPECT_THAT(decode_keys("\r\n\x7f\b"),
                ElementsAre(Key{KeyKind::ENTER, 0}, Key{KeyKind::ENTER, 0}, Key{KeyKind::BACKSPACE, 0},
                            Key{KeyKind::BACKSPACE, 0}));
    EXPECT_THAT(decode_keys(""), IsEmpty());
}

TEST(keys, sequences_are_one_key) {
    EXPECT_THAT(decode_keys("\x1b[A\x1b[B\x1bOA\x1b[5~\x1b[6~\x1b[H\x1b[4~\t\x1bOF"),
                ElementsAre(Key{KeyKind::UP, 0}, Key{KeyKind::DOWN, 0}, Key{KeyKind::UP, 0},
                            Key{KeyKind::PAGE_UP, 0}, Key{KeyKind::PAGE_DOWN, 0}, Key{KeyKind::HOME, 0},
                            Key{KeyKind::END, 0}, Key{KeyKind::TAB, 0}, Key{KeyKind::END, 0}));
}

TEST(keys, unknown_sequences_are_ignored) {
    EXPECT_THAT(decode_keys("\x1b[15~q"), ElementsAre(Key{KeyKind::OTHER, 0}, Key{KeyKind::CHARACTER, 'q'}));
    EXPECT_THAT(decode_keys("\x1b[1;5Cq"), ElementsAre(Key{KeyKind::OTHER, 0}, Key{KeyKind::CHARACTER, 'q'}));
    EXPECT_THAT(decode_keys("\x1b["), ElementsAre(Key{KeyKind::OTHER, 0}));
}

TEST(keys, a_lone_escape_is_the_key) {
    EXPECT_THAT(decode_keys("\x1b"), ElementsAre(Key{KeyKind::ESCAPE, 0}));
    EXPECT_THAT(decode_keys("\x1bq"), ElementsAre(Key{KeyKind::ESCAPE, 0}, Key{KeyKind::CHARACTER, 'q'}));
}

TEST(keys, other_bytes_are_ignored) {
    EXPECT_THAT(decode_keys("\x01\xc3\xa4"),
                ElementsAre(Key{KeyKind::OTHER, 0}, Key{KeyKind::OTHER, 0}, Key{KeyKind::OTHER, 0}));
}

#include "base/diag.h"

#include <gtest/gtest.h>

#include <string>

TEST(diag, writes_the_formatted_line_to_standard_error) {
    testing::internal::CaptureStderr();
    diag("chunk size %lu for '%s'\n", 4096UL, "cam1");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "chunk size 4096 for 'cam1'\n");
}

TEST(diag, writes_lines_of_any_length_whole) {
    for (const std::size_t length : {510U, 511U, 512U, 513U, 1048575U}) {
        const std::string name(length, 'x');
        testing::internal::CaptureStderr();
        diag("%s", name.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), name) << length;
    }
}

TEST(diag, writes_the_one_line_for_standard_output_there) {
    testing::internal::CaptureStdout();
    diag_stdout("A/V %lu\n", 7UL);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "A/V 7\n");
}

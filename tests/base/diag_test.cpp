#include "base/diag.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <string>

namespace {

// The results of the next calls of write(): at most this many bytes, or an error if negative. Later calls
// behave normally.
std::deque<int> next_writes;

}  // namespace

extern "C" ssize_t __real_write(int fd, const void* data, size_t bytes);
extern "C" ssize_t __wrap_write(int fd, const void* data, size_t bytes);

extern "C" ssize_t __wrap_write(int fd, const void* data, size_t bytes) {
    if (next_writes.empty()) {
        return __real_write(fd, data, bytes);
    }
    const int next = next_writes.front();
    next_writes.pop_front();
    if (next < 0) {
        errno = -next;
        return -1;
    }
    return __real_write(fd, data, std::min(bytes, static_cast<size_t>(next)));
}

TEST(diag, writes_the_formatted_line_to_standard_error) {
    testing::internal::CaptureStderr();
    diag("chunk size %lu for '%s'\n", 4096UL, "cam1");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "chunk size 4096 for 'cam1'\n");
}

TEST(diag, refuse_writes_the_formatted_line_and_returns_false) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(refuse("Unknown command '%s'\n", "seek"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unknown command 'seek'\n");
}

TEST(diag, writes_lines_of_any_length_whole) {
    for (const std::size_t length : {510U, 511U, 512U, 513U, 1048575U}) {
        const std::string name(length, 'x');
        testing::internal::CaptureStderr();
        diag("%s", name.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), name) << length;
    }
}

TEST(diag, writes_lines_for_standard_output_there) {
    testing::internal::CaptureStdout();
    diag_stdout("A/V %lu\n", 7UL);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "A/V 7\n");
}

TEST(diag, continues_after_an_interrupted_or_partial_write) {
    next_writes = {-EINTR, 3, -EINTR, 1};
    testing::internal::CaptureStderr();
    diag("Dropping connection\n");
    EXPECT_TRUE(next_writes.empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Dropping connection\n");
}

TEST(diag, discards_a_line_that_cannot_be_written) {
    next_writes = {5, -EIO};
    testing::internal::CaptureStderr();
    diag("Dropping connection\n");
    EXPECT_TRUE(next_writes.empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Dropp");
}

#include "tools/v9_rtmp_ctl/state_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

using testing::Optional;

namespace {

class state_file_test : public testing::Test {
  protected:
    state_file_test() {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directory(directory);
    }
    ~state_file_test() override { std::filesystem::remove_all(directory); }

    const std::filesystem::path directory =
        std::filesystem::path(testing::TempDir()) /
        ("state_file_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
    const std::string path = directory / "state.json";
};

}  // namespace

TEST_F(state_file_test, is_read_as_it_was_written) {
    const std::string text(300000, 'x');
    ASSERT_TRUE(replace_file(path, "first"));
    ASSERT_TRUE(replace_file(path, text));
    EXPECT_THAT(read_file(path), Optional(text));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1);
}

TEST_F(state_file_test, that_is_absent_has_no_text) {
    EXPECT_EQ(read_file(path), std::nullopt);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(state_file_test, a_stale_temporary_file_is_replaced_and_not_followed) {
    const std::string other = directory / "other";
    std::ofstream(other) << "other";
    std::filesystem::create_symlink(other, path + ".new");
    ASSERT_TRUE(replace_file(path, "text"));
    EXPECT_THAT(read_file(path), Optional(std::string("text")));
    EXPECT_THAT(read_file(other), Optional(std::string("other")));
}

TEST_F(state_file_test, is_unchanged_when_it_cannot_be_replaced) {
    EXPECT_FALSE(replace_file(directory / "absent" / "state.json", "text"));
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(replace_file(path, "text"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1);
}

TEST_F(state_file_test, replaces_regular_files_only) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(replace_file(path, "text"));
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_TRUE(std::filesystem::is_fifo(path));

    const std::string link = directory / "link";
    std::filesystem::create_symlink(path, link);
    EXPECT_FALSE(replace_file(link, "text"));
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 2);
}

TEST_F(state_file_test, a_lock_is_held_once_until_it_is_released) {
    {
        const FileLock lock(path);
        EXPECT_FALSE(lock.is_held_elsewhere());
        EXPECT_TRUE(FileLock(path).is_held_elsewhere());
    }
    EXPECT_FALSE(FileLock(path).is_held_elsewhere());
    EXPECT_FALSE(FileLock(directory / "absent" / "lock").is_held_elsewhere());
}

TEST(boot_id, is_the_same_when_read_again) {
    EXPECT_FALSE(boot_id().empty());
    EXPECT_EQ(boot_id(), boot_id());
}

#include "tools/v9_rtmp_ctl/process_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>

using testing::DoubleEq;
using testing::DoubleNear;
using testing::Eq;
using testing::Gt;
using testing::Optional;

namespace {

std::string stat_line(const std::string& name) {
    return "4711 (" + name +
           ") S 1 4711 4711 0 -1 4194304 300 0 0 0 150 50 0 0 20 0 5 0 1000 157372416 873 "
           "18446744073709551615 1 1 0";
}

}  // namespace

TEST(process_info, is_read_from_the_fields_after_the_name) {
    for (const char* const name : {"v9_rtmp_server", "a b", "a) S 9 9 9 (", ")"}) {
        ProcessInfo info;
        ASSERT_TRUE(read_process_stat(stat_line(name), 1000, info)) << name;
        const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
        EXPECT_THAT(info.cpu_seconds, Optional(DoubleEq(200 / ticks)));
        EXPECT_THAT(info.start_time_s, Optional(DoubleEq(1000 + 1000 / ticks)));
        EXPECT_THAT(info.threads, Optional(Eq(5U)));
        EXPECT_THAT(info.virtual_bytes, Optional(Eq(157372416U)));
        EXPECT_THAT(info.resident_bytes,
                    Optional(Eq(873U * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)))));
    }
}

TEST(process_info, is_not_read_from_other_text) {
    ProcessInfo info;
    for (const std::string& text : {std::string(), std::string("4711 (name"),
                                    std::string("4711 (name) S 1 2"), stat_line("x").substr(0, 60)}) {
        EXPECT_FALSE(read_process_stat(text, 0, info)) << text;
    }
    EXPECT_FALSE(info.threads);
}

TEST(process_info, is_known_for_this_process_and_not_for_a_missing_one) {
    const ProcessInfo own = find_process_info(getpid());
    EXPECT_THAT(own.open_descriptors, Optional(Gt(2U)));
    EXPECT_THAT(own.max_descriptors, Optional(Gt(2U)));
    EXPECT_THAT(own.resident_bytes, Optional(Gt(100000U)));
    EXPECT_THAT(own.start_time_s, Optional(DoubleNear(static_cast<double>(std::time(nullptr)), 3600)));
    EXPECT_FALSE(find_process_info(0).threads);
    EXPECT_FALSE(find_process_info(-1).threads);
}

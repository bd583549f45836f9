#include "tools/v9_rtmp_ctl/check_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

using testing::HasSubstr;
using testing::Optional;

namespace {

const std::string LIMITS =
    "Limit                     Soft Limit           Hard Limit           Units     \n"
    "Max cpu time              unlimited            unlimited            seconds   \n"
    "Max processes             1000                 2000                 processes \n"
    "Max open files            1024                 4096                 files     \n";

std::string limits_with(const std::string& processes, const std::string& files) {
    return "Max processes             " + processes + "  2000 processes\nMax open files            " + files +
           "  4096  files\n";
}

}  // namespace

TEST(check_rules, the_worst_finding_decides) {
    const Finding ok{Level::OK, "", ""};
    const Finding warning{Level::WARNING, "", ""};
    const Finding critical{Level::CRITICAL, "", ""};
    const Finding unknown{Level::UNKNOWN, "", ""};
    EXPECT_EQ(worst_of({}), Level::OK);
    EXPECT_EQ(worst_of({ok, unknown}), Level::UNKNOWN);
    EXPECT_EQ(worst_of({unknown, warning, ok}), Level::WARNING);
    EXPECT_EQ(worst_of({critical, warning, unknown}), Level::CRITICAL);
}

TEST(check_rules, limits_are_read_from_the_kernels_table) {
    EXPECT_THAT(find_limit(LIMITS, "Max open files"), Optional(1024U));
    EXPECT_THAT(find_limit(LIMITS, "Max cpu time"), Optional(~std::uint64_t{0}));
    EXPECT_EQ(find_limit(LIMITS, "Max nothing"), std::nullopt);
    EXPECT_EQ(find_limit("Max open files  x y\n", "Max open files"), std::nullopt);
    EXPECT_EQ(find_cgroup("1:name=x:/a\n0::/system.slice/a.service\n"), "/system.slice/a.service");
    EXPECT_EQ(find_cgroup("1:name=x:/a\n"), "");
}

TEST(check_rules, the_smallest_limit_of_a_cgroup_and_its_ancestors_applies) {
    EXPECT_THAT(find_smallest_limit({"1536\n", "max\n", "256\n", "", "512\n"}),
                Optional(std::string("256\n")));
    EXPECT_THAT(find_smallest_limit({"256\n", "1536\n"}), Optional(std::string("256\n")));
    EXPECT_EQ(find_smallest_limit({"max\n", ""}), std::nullopt);
}

TEST(check_rules, slots_warn_when_a_tenth_is_left_and_are_critical_when_none_is) {
    EXPECT_EQ(judge_slots(115).level, Level::OK);
    EXPECT_EQ(judge_slots(116).level, Level::WARNING);
    EXPECT_EQ(judge_slots(127).level, Level::WARNING);
    EXPECT_EQ(judge_slots(128).level, Level::CRITICAL);
}

TEST(check_rules, descriptors_and_threads_suffice_for_a_full_table) {
    EXPECT_EQ(judge_descriptor_limit(LIMITS).level, Level::OK);
    EXPECT_EQ(judge_descriptor_limit(limits_with("1", "256")).level, Level::OK);
    EXPECT_EQ(judge_descriptor_limit(limits_with("1", "255")).level, Level::WARNING);
    EXPECT_EQ(judge_descriptor_limit(std::nullopt).level, Level::UNKNOWN);
    EXPECT_EQ(judge_thread_limit(limits_with("272", "1"), std::nullopt).level, Level::OK);
    EXPECT_EQ(judge_thread_limit(limits_with("271", "1"), std::nullopt).level, Level::WARNING);
    EXPECT_EQ(judge_thread_limit(LIMITS, "272\n").level, Level::OK);
    EXPECT_THAT(judge_thread_limit(LIMITS, "271\n").text, HasSubstr("may have 271 threads"));
    EXPECT_EQ(judge_thread_limit(LIMITS, "max\n").level, Level::OK);
    EXPECT_EQ(judge_thread_limit(std::nullopt, "1\n").level, Level::UNKNOWN);
}

TEST(check_rules, a_server_without_a_memory_limit_is_a_warning) {
    EXPECT_EQ(judge_memory_limit(true, std::nullopt).level, Level::WARNING);
}

TEST(check_rules, a_memory_limit_that_cannot_be_read_is_unknown) {
    EXPECT_EQ(judge_memory_limit(false, std::nullopt).level, Level::UNKNOWN);
}

// 160 MiB, and 13 MiB for each of 128 clients.
TEST(check_rules, a_memory_limit_below_what_a_full_table_may_hold_is_a_warning) {
    EXPECT_EQ(judge_memory_limit(true, "1912602624\n").level, Level::OK);
    EXPECT_EQ(judge_memory_limit(true, "1912602623\n").level, Level::WARNING);
}

TEST(check_rules, the_packaged_unit_allows_what_a_full_table_needs) {
    std::ifstream unit(SERVER_UNIT);
    std::map<std::string, std::string> settings;
    for (std::string line; std::getline(unit, line);) {
        settings[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    }
    EXPECT_EQ(judge_thread_limit(LIMITS, settings["TasksMax"] + '\n').level, Level::OK);
    EXPECT_EQ(judge_descriptor_limit(limits_with("1", settings["LimitNOFILE"])).level, Level::OK);
    const std::string& memory = settings["MemoryMax"];
    ASSERT_TRUE(memory.ends_with('M')) << memory;
    const std::uint64_t bytes = std::stoull(memory) << 20;
    EXPECT_EQ(judge_memory_limit(true, std::to_string(bytes) + '\n').level, Level::OK);
}

TEST(check_rules, standard_error_may_go_to_the_journal_or_be_discarded) {
    EXPECT_EQ(judge_standard_error("socket:[123]").level, Level::OK);
    EXPECT_EQ(judge_standard_error("/dev/null").level, Level::OK);
    EXPECT_THAT(judge_standard_error("pipe:[123]").text,
                HasSubstr("the relay stops if the process that reads the pipe stops reading"));
    EXPECT_THAT(judge_standard_error("/dev/pts/0").text, HasSubstr("Start the server as a service"));
    EXPECT_THAT(judge_standard_error("/var/log/a\nb").text,
                HasSubstr("/var/log/a\\x0Ab, which untrusted clients can fill"));
    EXPECT_EQ(judge_standard_error(std::nullopt).level, Level::UNKNOWN);
}

TEST(check_rules, clock_and_kernel_are_checked) {
    EXPECT_EQ(judge_clock(true, true).level, Level::OK);
    EXPECT_EQ(judge_clock(true, false).level, Level::WARNING);
    EXPECT_EQ(judge_clock(false, false).level, Level::UNKNOWN);
    EXPECT_EQ(judge_kernel(4096, 60000, 0).level, Level::OK);
    EXPECT_THAT(judge_kernel(19, 60000, 0).text, HasSubstr("net.core.somaxconn is 19"));
    EXPECT_THAT(judge_kernel(4096, 543, 0).text, HasSubstr("kernel.threads-max is 543"));
    EXPECT_THAT(judge_kernel(4096, 60000, 2).text, HasSubstr("vm.overcommit_memory is 2"));
    EXPECT_EQ(judge_kernel(std::nullopt, 60000, 0).level, Level::UNKNOWN);
}

TEST(check_rules, every_finding_that_is_not_ok_says_what_to_do) {
    for (const Finding& finding :
         {judge_slots(120), judge_slots(128), judge_descriptor_limit(limits_with("1", "1")),
          judge_descriptor_limit(std::nullopt), judge_thread_limit(limits_with("1", "1"), std::nullopt),
          judge_memory_limit(true, std::nullopt), judge_memory_limit(false, std::nullopt),
          judge_memory_limit(true, "1\n"), judge_standard_error("pipe:[1]"),
          judge_standard_error("/dev/pts/1"), judge_standard_error("/x"), judge_clock(true, false),
          judge_clock(false, false), judge_kernel(1, 1, 1), judge_kernel(4096, 1, 1),
          judge_kernel(4096, 60000, 2), judge_kernel(std::nullopt, std::nullopt, std::nullopt)}) {
        EXPECT_NE(finding.level, Level::OK);
        EXPECT_TRUE(finding.text.ends_with('.') || finding.text.ends_with(").")) << finding.text;
    }
}

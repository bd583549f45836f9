#include "core/options.h"

#include <gtest/gtest.h>

#include <vector>

#include "core/switches.h"

namespace {

class options : public testing::Test {
  protected:
    options() { opt_dbg_pkt = opt_no_def_ack = false; }

    bool parse(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "v9_rtmp_server");
        testing::internal::CaptureStderr();
        const bool go_on = parse_options(static_cast<int>(arguments.size()), arguments.data());
        printed = testing::internal::GetCapturedStderr();
        return go_on;
    }

    std::string printed;
};

constexpr const char* USAGE =
    "  --dbg-pkt     Debug packet conversation (without A/V content)\n"
    "  --no-def-ack  Do not send ACK packets unless asked to.\n";

}  // namespace

TEST_F(options, may_be_absent) {
    EXPECT_TRUE(parse({}));
    EXPECT_EQ(printed, "");
    EXPECT_FALSE(opt_dbg_pkt || opt_no_def_ack);
}

TEST_F(options, both_switches_may_be_repeated_in_any_order_with_any_dashes) {
    EXPECT_TRUE(parse({"--no-def-ack", "-dbg-pkt", "---no-def-ack"}));
    EXPECT_TRUE(opt_dbg_pkt && opt_no_def_ack);
    EXPECT_EQ(printed, "");
}

TEST_F(options, each_switch_sets_its_own_flag) {
    EXPECT_TRUE(parse({"--dbg-pkt"}));
    EXPECT_TRUE(opt_dbg_pkt && !opt_no_def_ack);
}

TEST_F(options, help_prints_the_usage_and_ends) {
    for (const char* const help : {"-h", "--h", "---help", "-help"}) {
        EXPECT_FALSE(parse({help, "--bogus"}));
        EXPECT_EQ(printed, USAGE) << help;
    }
}

TEST_F(options, the_first_bad_argument_is_named_and_ends) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"-hx", "Unhandled switch hx\n"},    {"--HELP", "Unhandled switch HELP\n"},
        {"-", "Unhandled switch \n"},        {"--", "Unhandled switch \n"},
        {"foo", "Unhandled arg 'foo'\n"},    {"", "Unhandled arg ''\n"},
        {"--dbg", "Unhandled switch dbg\n"}, {"--dbg-pkt=1", "Unhandled switch dbg-pkt=1\n"},
    };
    for (const auto& [argument, text] : cases) {
        EXPECT_FALSE(parse({argument, "--help"}));
        EXPECT_EQ(printed, text);
    }
}

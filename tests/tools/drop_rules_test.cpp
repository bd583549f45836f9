#include "tools/v9_rtmp_ctl/drop_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::Optional;

TEST(drop_rules, an_id_is_decimal_and_below_128) {
    EXPECT_THAT(parse_connection_id("0"), Optional(0U));
    EXPECT_THAT(parse_connection_id("127"), Optional(127U));
    EXPECT_THAT(parse_connection_id("007"), Optional(7U));
    for (const char* text : {"", "128", "-1", "+1", "5x", "x5", " 5", "5 ", "0x10", "1e1", "4294967296",
                             "99999999999999999999"}) {
        EXPECT_EQ(parse_connection_id(text), std::nullopt) << text;
    }
}

TEST(drop_rules, the_count_is_read_from_the_answer) {
    EXPECT_THAT(dropped_count("OK, 0 connections dropped"), Optional(0U));
    EXPECT_THAT(dropped_count("OK, 128 connections dropped"), Optional(128U));
    for (const char* message :
         {"", "OK", "OK,  connections dropped", "OK, -1 connections dropped", "OK, 1 connections",
          "OK, x connections dropped", "OK, connections dropped"}) {
        EXPECT_EQ(dropped_count(message), std::nullopt) << message;
    }
}

TEST(drop_rules, a_known_stream_name_guards_the_drop) {
    EXPECT_EQ(drop_id_request(5, "cam1").command, "drop connection by id");
    EXPECT_THAT(drop_id_request(5, "cam1").arguments, ElementsAre("5", "cam1"));
    EXPECT_THAT(drop_id_request(5, "").arguments, ElementsAre("5"));
}

TEST(drop_rules, only_a_plain_ok_means_that_it_was_dropped) {
    EXPECT_FALSE(judge_drop_id(5, "cam1", {0, "", "OK", {}}));
    struct Row {
        std::uint64_t status;
        const char* message;
        ExitCode exit_code;
    };
    const Row rows[] = {
        {0, "OK, no such connection", ExitCode::NEGATIVE_ANSWER},
        {0, "Stream name does not match", ExitCode::NEGATIVE_ANSWER},
        {6, "Bad or invalid connection ID", ExitCode::NEGATIVE_ANSWER},
        {6, "OK", ExitCode::NEGATIVE_ANSWER},
        {0, "Fine", ExitCode::NO_REPLY},
    };
    for (const Row& row : rows) {
        const std::optional<Failure> failure = judge_drop_id(5, "cam1", {row.status, "", row.message, {}});
        ASSERT_TRUE(failure) << row.message;
        EXPECT_EQ(failure->exit_code, row.exit_code) << row.message;
    }
}

TEST(drop_rules, a_candidate_is_dropped_only_while_it_is_unchanged_in_the_listing) {
    const Connection unnamed = *parse_connection_line("5\t\t\t\t1\t2\t10.0.0.1:1");
    const Connection player = *parse_connection_line("6\tcam1\tplay\t\t1\t2\t10.0.0.2:2");
    Connection busier = player;
    busier.bytes_sent = 1000000;
    EXPECT_FALSE(judge_candidate(unnamed, {player, unnamed}));
    EXPECT_FALSE(judge_candidate(player, {unnamed, busier}));
    for (const char* line : {"5\tcam1\tpublish\t\t1\t2\t10.0.0.1:1", "5\t\t\t\t1\t2\t10.0.0.1:9",
                             "5\t\tplay\t\t1\t2\t10.0.0.1:1"}) {
        const std::optional<Failure> failure =
            judge_candidate(unnamed, {player, *parse_connection_line(line)});
        ASSERT_TRUE(failure) << line;
        EXPECT_EQ(failure->message, "connection 5 has changed and was kept. Look again, then drop it.");
    }
    EXPECT_THAT(judge_candidate(unnamed, {player})->message, testing::HasSubstr("there is no connection 5"));
}

TEST(drop_rules, a_client_that_has_since_chosen_a_stream_is_still_the_same_client) {
    const Connection unnamed = *parse_connection_line("5\t\t\t\t1\t2\t10.0.0.1:1");
    const Connection named = *parse_connection_line("5\tcam1\tpublish\t\t1\t2\t10.0.0.1:1");
    const std::optional<Failure> failure =
        judge_drop({5, "", unnamed}, {0, "", "OK", {}}, {1, {named}}, {2, {named}});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->exit_code, ExitCode::ANOTHER_CLIENT);
    EXPECT_THAT(
        failure->message,
        testing::StartsWith("the client was dropped, but had changed its stream before that. Id 5 when it "
                            "was looked up: without a stream, from 10.0.0.1:1; when it was dropped: "
                            "publish of 'cam1' from 10.0.0.1:1."));
}

TEST(drop_rules, only_what_both_listings_agree_on_is_certain) {
    const Connection meant = *parse_connection_line("5\tcam1\tplay\t\t1\t2\t10.0.0.1:1");
    const Connection other = *parse_connection_line("5\tcam1\tplay\t\t1\t2\t10.0.0.2:2");
    const Connection renamed = *parse_connection_line("5\tdemo\tplay\t\t1\t2\t10.0.0.1:1");
    const Connection unknown = *parse_connection_line("5\tcam1\tplay\t\t\t\t");
    struct Row {
        std::optional<Connection> expected;
        std::vector<Connection> before;
        std::vector<Connection> after;
        const char* said;  // empty: the drop is certain
    };
    const Row rows[] = {
        {meant, {meant}, {meant}, ""},
        {std::nullopt, {other}, {other}, ""},
        {meant,
         {other},
         {other},
         "another client was dropped. Id 5 when it was looked up: play of 'cam1' from 10.0.0.1:1; when"},
        {meant, {meant}, {other}, "Id 5 before the drop: play of 'cam1' from 10.0.0.1:1; after it: play of"},
        {meant, {meant}, {renamed}, "after it: play of 'demo' from 10.0.0.1:1"},
        {meant, {meant}, {}, "after it: free."},
        {meant, {}, {other}, "before the drop: free;"},
        {meant, {unknown}, {unknown}, "from an unknown address"},
    };
    for (const Row& row : rows) {
        const std::optional<Failure> failure =
            judge_drop({5, "cam1", row.expected}, {0, "", "OK", {}}, {1, row.before}, {2, row.after});
        EXPECT_EQ(failure.has_value(), *row.said != '\0') << row.said;
        if (failure) {
            EXPECT_EQ(failure->exit_code, ExitCode::ANOTHER_CLIENT);
            EXPECT_THAT(failure->message, testing::HasSubstr(row.said));
        }
    }
    EXPECT_EQ(judge_drop({5, "cam1", meant}, {0, "", "Stream name does not match", {}}, {}, {})->exit_code,
              ExitCode::NEGATIVE_ANSWER);
}

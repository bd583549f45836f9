#include "tools/v9_rtmp_ctl/watchdog_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr std::uint64_t SECOND = 1000000;
constexpr std::uint64_t FOUR_MBIT = 500000;  // bytes per second

// Media bytes of a client as a function of the second; the first listing is that of second 1.
using Media = std::function<std::uint64_t(std::uint64_t second)>;

// A client that receives, or sends, the same amount each second.
Media steady(std::uint64_t bytes_per_second) {
    return [bytes_per_second](std::uint64_t s) { return s * bytes_per_second; };
}

// A client that transfers nothing after this second.
Media until(std::uint64_t last_second, std::uint64_t bytes_per_second = FOUR_MBIT) {
    return [=](std::uint64_t s) { return std::min(s, last_second) * bytes_per_second; };
}

struct Client {
    unsigned id = 0;
    std::string mode;
    Media media;
    std::uint64_t first_second = 1;
    std::string stream = "cam1";
    std::string address = "203.0.113.7";
};

// Clients that are listed once a second.
class watchdog_rules_test : public testing::Test {
  protected:
    void player(unsigned id, Media media, std::uint64_t first_second = 1) {
        clients.push_back({id, "play", std::move(media), first_second});
    }
    void publisher(unsigned id, Media media, std::uint64_t first_second = 1) {
        clients.push_back({id, "publish", std::move(media), first_second});
    }

    std::vector<Verdict> at(std::uint64_t second) {
        EXPECT_GE(second, now_s) << "time does not go back";
        while (now_s < second) {
            poll();
        }
        return judge(history, limits, age_drops);
    }

    // Returns the first second, up to the last one, with a verdict on any client; 0 if there is none.
    std::uint64_t first_verdict(std::uint64_t last_second) {
        while (now_s < last_second) {
            poll();
            if (!judge(history, limits, age_drops).empty()) {
                return now_s;
            }
        }
        return 0;
    }

    std::vector<unsigned> ids(const std::vector<Verdict>& verdicts) {
        std::vector<unsigned> found;
        for (const Verdict& verdict : verdicts) {
            found.push_back(verdict.target.id);
        }
        return found;
    }

    void only(DropRule rule) {
        const WatchdogLimits all;
        limits = WatchdogLimits{std::nullopt, std::nullopt, std::nullopt, std::nullopt,  std::nullopt,
                                std::nullopt, std::nullopt, {},           all.stagger_us};
        switch (rule) {
            case DropRule::STALLED:
                limits.stalled_us = all.stalled_us;
                break;
            case DropRule::BEHIND:
                limits.behind_us = all.behind_us;
                break;
            case DropRule::AGE:
                limits.age_us = all.age_us;
                break;
            case DropRule::SILENT:
                limits.silent_us = all.silent_us;
                break;
            case DropRule::LONG_NAME:
            case DropRule::ORIGIN:
            case DropRule::UNNAMED:
            case DropRule::CONTESTED:
                FAIL() << "not used";
        }
        history = make_history();
    }

    ConnectionHistory make_history() const {
        return ConnectionHistory(history_times(limits, 5 * SECOND, SECOND));
    }

    std::vector<Client> clients;
    WatchdogLimits limits;
    AgeDrops age_drops;
    std::uint64_t now_s = 0;
    ConnectionHistory history{history_times(WatchdogLimits(), 5 * SECOND, SECOND)};

  private:
    void poll() {
        ++now_s;
        Listing listing{now_s * SECOND, {}};
        for (const Client& client : clients) {
            if (now_s < client.first_second) {
                continue;
            }
            Connection connection;
            connection.id = client.id;
            connection.mode = client.mode;
            connection.stream = client.stream;
            connection.address = client.address + ":" + std::to_string(40000 + client.id);
            const std::uint64_t media = 4000 + client.media(now_s);
            connection.bytes_sent = client.mode == "publish" ? 3500 : media;
            connection.bytes_received = client.mode == "publish" ? media : 3500;
            listing.connections.push_back(connection);
        }
        history.take_in(listing);
    }
};

auto verdict(unsigned id, DropRule rule, const std::string& reason) {
    return AllOf(Field(&Verdict::target, Field(&Connection::id, id)), Field(&Verdict::rule, rule),
                 Field(&Verdict::reason, reason));
}

}  // namespace

TEST_F(watchdog_rules_test, a_player_that_stands_still_beside_others_is_dropped_after_thirty_seconds) {
    only(DropRule::STALLED);
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    player(3, until(100));
    EXPECT_THAT(at(129), IsEmpty());
    EXPECT_THAT(at(130),
                ElementsAre(verdict(3, DropRule::STALLED,
                                    "it has received nothing for 30 s while other players of the stream "
                                    "received data")));
}

TEST_F(watchdog_rules_test, a_lone_player_that_stands_still_is_judged_by_the_publisher) {
    only(DropRule::STALLED);
    publisher(1, steady(FOUR_MBIT));
    player(3, until(100));
    EXPECT_THAT(at(129), IsEmpty());
    EXPECT_THAT(at(130),
                ElementsAre(verdict(3, DropRule::STALLED,
                                    "it has received nothing for 30 s while the publisher kept sending")));
}

TEST_F(watchdog_rules_test, a_lone_player_of_a_stream_without_a_publisher_is_kept) {
    player(3, until(1));
    EXPECT_EQ(first_verdict(3000), 0U);
}

TEST_F(watchdog_rules_test, a_lone_player_is_kept_while_it_is_not_known_which_of_two_publishers_is_relayed) {
    only(DropRule::STALLED);
    publisher(1, steady(FOUR_MBIT));
    publisher(2, until(50));
    player(3, until(50));
    EXPECT_EQ(first_verdict(3000), 0U);
}

TEST_F(watchdog_rules_test, a_rival_that_waits_does_not_protect_a_lone_player_that_stands_still) {
    // The second rival sends too little to be sending media.
    for (const std::uint64_t rival_rate : {2500U, 500U}) {
        clients.clear();
        now_s = 0;
        only(DropRule::STALLED);
        publisher(1, steady(FOUR_MBIT));
        publisher(2, steady(rival_rate), 3);
        player(3, until(100));
        EXPECT_EQ(first_verdict(200), 130U) << rival_rate;
    }
}

TEST_F(watchdog_rules_test, a_rival_that_waits_does_not_protect_a_lone_player_that_falls_behind) {
    for (const std::uint64_t rival_rate : {std::uint64_t{2500}, 2 * FOUR_MBIT}) {
        clients.clear();
        now_s = 0;
        only(DropRule::BEHIND);
        publisher(1, steady(FOUR_MBIT));
        publisher(2, steady(rival_rate), 3);
        player(3, steady(3000));
        EXPECT_NEAR(static_cast<double>(first_verdict(200)), 22, 2) << rival_rate;
    }
}

TEST_F(watchdog_rules_test, a_rival_that_waits_does_not_protect_a_slow_player_beside_others) {
    only(DropRule::BEHIND);
    publisher(1, steady(FOUR_MBIT));
    publisher(2, steady(2500), 3);
    player(3, steady(3000));
    for (unsigned id = 4; id < 14; ++id) {
        player(id, steady(FOUR_MBIT));
    }
    EXPECT_THAT(ids(at(40)), ElementsAre(3));
}

TEST_F(watchdog_rules_test,
       players_of_a_rival_that_took_over_are_not_compared_with_the_publisher_that_paused) {
    const Media paused = [](std::uint64_t s) { return (s < 20 ? s : s < 24 ? 20 : s - 4) * FOUR_MBIT; };
    only(DropRule::BEHIND);
    publisher(1, paused);
    publisher(2, steady(2500), 3);
    // With a player, the server would have disconnected the one that paused.
    player(3, steady(2500), 30);
    EXPECT_EQ(first_verdict(1000), 0U);
}

TEST_F(watchdog_rules_test, when_all_players_stand_still_only_their_publisher_is_a_suspect) {
    publisher(1, steady(FOUR_MBIT));
    for (unsigned id = 2; id < 22; ++id) {
        player(id, until(100));
    }
    EXPECT_EQ(first_verdict(3000), 0U);
}

TEST_F(watchdog_rules_test, of_twenty_players_of_a_frozen_publisher_with_a_waiting_rival_none_is_dropped) {
    publisher(1, until(100));
    publisher(30, steady(FOUR_MBIT), 20);
    for (unsigned id = 2; id < 22; ++id) {
        player(id, until(100));
    }
    EXPECT_THAT(at(114), IsEmpty());
    EXPECT_THAT(at(115), ElementsAre(verdict(
                             1, DropRule::CONTESTED,
                             "it has sent nothing for 15 s while another publisher of the stream waits")));
    for (std::uint64_t s = 116; s < 1000; ++s) {
        ASSERT_THAT(ids(at(s)), ElementsAre(1)) << s;
    }
}

// What a new player is sent first is not a sign that the others could have received something.
TEST_F(watchdog_rules_test, players_that_join_a_frozen_stream_do_not_make_others_look_stalled) {
    only(DropRule::STALLED);
    limits.behind_us = WatchdogLimits().behind_us;
    publisher(1, until(100));
    for (unsigned id = 2; id < 12; ++id) {
        player(id, until(100));
    }
    for (unsigned i = 0; i < 20; ++i) {
        const std::uint64_t join = 110 + 10 * i;
        player(
            40 + i, [join](std::uint64_t s) { return s < join + 2 ? 0 : 60000; }, join);
    }
    EXPECT_EQ(first_verdict(1000), 0U);
}

TEST_F(watchdog_rules_test, answers_to_a_players_messages_are_not_media) {
    only(DropRule::STALLED);
    publisher(1, until(100));
    player(2, until(100));
    player(3, [](std::uint64_t s) { return std::min<std::uint64_t>(s, 100) * FOUR_MBIT + s * 100; });
    EXPECT_EQ(first_verdict(1000), 0U);
}

TEST_F(watchdog_rules_test, a_second_player_that_has_just_joined_does_not_protect_one_that_stands_still) {
    only(DropRule::STALLED);
    publisher(1, steady(FOUR_MBIT));
    player(2, until(100));
    player(3, steady(FOUR_MBIT), 120);
    EXPECT_THAT(ids(at(130)), ElementsAre(2));
}

TEST_F(watchdog_rules_test, a_player_that_stands_still_for_less_than_the_limit_is_kept) {
    only(DropRule::STALLED);
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    player(3, [](std::uint64_t s) { return (s - s % 29) * FOUR_MBIT; });
    EXPECT_EQ(first_verdict(1000), 0U);
}

TEST_F(watchdog_rules_test, a_reader_of_a_kilobyte_a_second_is_dropped_though_it_never_stands_still) {
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    player(4, steady(FOUR_MBIT));
    player(3, [](std::uint64_t s) { return std::min<std::uint64_t>(s, 100) * FOUR_MBIT + s * 1000; });
    EXPECT_THAT(at(115), IsEmpty());
    EXPECT_THAT(at(116), ElementsAre(verdict(3, DropRule::BEHIND,
                                             "it is more than 15 s behind other players of the stream")));
}

TEST_F(watchdog_rules_test, a_lone_reader_of_a_kilobyte_a_second_is_judged_by_the_publisher) {
    publisher(1, steady(FOUR_MBIT));
    player(3, steady(1000));
    // Both settle in second 6; a tenth may be headers.
    EXPECT_THAT(at(21), IsEmpty());
    EXPECT_THAT(at(23),
                ElementsAre(verdict(3, DropRule::BEHIND, "it is more than 15 s behind its publisher")));
}

TEST_F(watchdog_rules_test, headers_of_different_size_do_not_make_a_lone_player_look_behind) {
    publisher(1, steady(FOUR_MBIT));
    player(3, steady(FOUR_MBIT / 100 * 91));
    EXPECT_EQ(first_verdict(10000), 0U);
}

TEST_F(watchdog_rules_test, a_player_that_reads_nine_tenths_beside_others_is_eventually_dropped) {
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    player(3, steady(FOUR_MBIT / 10 * 9));
    // 15 s at a tenth of the speed.
    EXPECT_NEAR(static_cast<double>(first_verdict(1000)), 157, 3);
}

// With 128-byte chunks, headers add eight bytes in a thousand compared with large chunks.
TEST_F(watchdog_rules_test, players_with_large_chunks_are_kept_beside_those_with_small_ones) {
    only(DropRule::BEHIND);
    publisher(1, steady(FOUR_MBIT / 1000 * 1008));
    for (unsigned id = 2; id < 8; ++id) {
        player(id, steady(FOUR_MBIT / 1000 * 1008));
    }
    player(8, steady(FOUR_MBIT));
    EXPECT_EQ(first_verdict(16200), 0U);
}

// Chunks of one byte have as many bytes of headers as of media.
TEST_F(watchdog_rules_test, a_player_with_tiny_chunks_does_not_make_others_look_behind) {
    for (const unsigned others : {1U, 2U, 5U}) {
        clients.clear();
        now_s = 0;
        only(DropRule::BEHIND);
        publisher(1, steady(FOUR_MBIT));
        // A rival that waits does not change that, however little it sends.
        publisher(2, steady(3000));
        player(3, steady(2 * FOUR_MBIT));
        for (unsigned id = 4; id < 4 + others; ++id) {
            player(id, steady(FOUR_MBIT));
        }
        EXPECT_EQ(first_verdict(2000), 0U) << others;
    }
}

TEST_F(watchdog_rules_test, many_slow_readers_do_not_protect_each_other) {
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    for (unsigned id = 3; id < 40; ++id) {
        player(id, steady(1000));
    }
    EXPECT_THAT(at(60), SizeIs(37));
}

TEST_F(watchdog_rules_test, players_that_stand_still_do_not_protect_one_that_falls_behind) {
    only(DropRule::BEHIND);
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    for (unsigned id = 3; id < 10; ++id) {
        player(id, until(100));
    }
    player(10, [](std::uint64_t s) { return std::min<std::uint64_t>(s, 200) * FOUR_MBIT + s * 1000; });
    EXPECT_THAT(ids(at(215)), Not(Contains(10)));
    EXPECT_THAT(ids(at(216)), Contains(10));
}

TEST_F(watchdog_rules_test, a_player_that_catches_up_is_kept) {
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    player(4, steady(FOUR_MBIT));
    // Stalls for 14 seconds of each 100, and then has caught up.
    player(3, [](std::uint64_t s) { return (s % 100 < 14 ? s - s % 100 : s) * FOUR_MBIT; });
    EXPECT_EQ(first_verdict(2000), 0U);
}

// The other player settles while this one is slow, and then seems ahead by as much as this one was behind.
TEST_F(watchdog_rules_test, a_player_that_catches_up_does_not_make_others_look_behind) {
    publisher(1, steady(FOUR_MBIT));
    player(2, [](std::uint64_t s) { return (s >= 95 && s < 109 ? 95 : s) * FOUR_MBIT; });
    // Settles in second 105; it has short pauses of its own later.
    player(
        3, [](std::uint64_t s) { return (s % 60 < 10 ? s - s % 60 : s) * FOUR_MBIT; }, 100);
    player(4, steady(FOUR_MBIT));
    player(5, steady(FOUR_MBIT));
    EXPECT_EQ(first_verdict(1000), 0U);
}

// The watchdog starts while that player is 45 s behind, so all others seem to have received less since then.
TEST_F(watchdog_rules_test, a_player_that_catches_up_from_far_behind_gets_no_other_one_dropped) {
    publisher(1, steady(FOUR_MBIT));
    player(2, [](std::uint64_t s) { return (s < 8 ? s : s + 45) * FOUR_MBIT; });
    for (unsigned id = 3; id < 15; ++id) {
        player(id, steady(FOUR_MBIT));
    }
    EXPECT_EQ(first_verdict(1000), 0U);
}

TEST_F(watchdog_rules_test, a_stream_that_pauses_does_not_make_players_look_behind) {
    const Media pausing = [](std::uint64_t s) {
        return (s / 100 * 50 + std::min<std::uint64_t>(s % 100, 50)) * FOUR_MBIT;
    };
    only(DropRule::BEHIND);
    publisher(1, pausing);
    player(2, pausing);
    // Ten seconds later than the other.
    player(3, [pausing](std::uint64_t s) { return s < 10 ? 0 : pausing(s - 10); });
    EXPECT_EQ(first_verdict(2000), 0U);
}

TEST_F(watchdog_rules_test, a_lone_player_that_gets_everything_is_kept) {
    publisher(1, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT));
    EXPECT_EQ(first_verdict(10000), 0U);
}

TEST_F(watchdog_rules_test, publishers_that_send_little_or_rarely_are_kept_and_so_are_their_players) {
    struct Row {
        const char* what;
        Media sent;
        Media got;
    };
    const Row rows[] = {
        {"metadata that players are sent, every 20 s", [](std::uint64_t s) { return s / 20 * 400; },
         [](std::uint64_t s) { return s / 20 * 380; }},
        {"data that players are not sent", [](std::uint64_t s) { return s * 400; },
         [](std::uint64_t /*second*/) { return 0; }},
        {"audio of 32 kbit/s", steady(4500), steady(4400)},
        {"a small frame in 5 s", [](std::uint64_t s) { return s / 5 * 500; },
         [](std::uint64_t s) { return s / 5 * 500; }},
        {"a large frame in 5 s", [](std::uint64_t s) { return s / 5 * 400000; },
         [](std::uint64_t s) { return s / 5 * 399000; }},
    };
    for (const unsigned player_count : {1U, 2U, 20U}) {
        for (const Row& row : rows) {
            clients.clear();
            now_s = 0;
            history = make_history();
            publisher(1, row.sent);
            for (unsigned id = 2; id < 2 + player_count; ++id) {
                player(id, row.got, id);
            }
            EXPECT_EQ(first_verdict(1000), 0U) << row.what << ", players: " << player_count;
        }
    }
}

TEST_F(watchdog_rules_test, a_stalled_player_of_a_slow_stream_is_dropped) {
    publisher(1, steady(4500));
    player(2, steady(4400));
    player(3, until(100, 4400));
    EXPECT_NEAR(static_cast<double>(first_verdict(1000)), 119, 2);
}

TEST_F(watchdog_rules_test, a_client_without_a_stream_name_is_dropped_after_twenty_seconds) {
    clients.push_back({7, "", steady(0), 1, ""});
    clients.push_back({8, "play", steady(0), 1, ""});
    EXPECT_THAT(at(20), IsEmpty());
    EXPECT_THAT(at(21), ElementsAre(verdict(7, DropRule::UNNAMED, "it has had no stream name for 20 s"),
                                    verdict(8, DropRule::UNNAMED, "it has had no stream name for 20 s")));
}

TEST_F(watchdog_rules_test, a_silent_publisher_is_dropped_after_thirty_seconds) {
    publisher(1, until(100));
    EXPECT_THAT(at(129), IsEmpty());
    EXPECT_THAT(at(130), ElementsAre(verdict(1, DropRule::SILENT, "it has sent nothing for 30 s")));
}

TEST_F(watchdog_rules_test, each_of_two_silent_publishers_is_dropped_at_its_own_limit) {
    publisher(1, until(100));
    publisher(2, until(90));
    EXPECT_THAT(ids(at(115)), IsEmpty());
    EXPECT_THAT(ids(at(120)), ElementsAre(2));
    EXPECT_THAT(ids(at(130)), ElementsAre(1, 2));
}

TEST_F(watchdog_rules_test, a_publisher_of_another_stream_is_not_a_waiting_rival) {
    publisher(1, until(100));
    clients.push_back({2, "publish", steady(FOUR_MBIT), 1, "cam2"});
    EXPECT_THAT(at(129), IsEmpty());
}

TEST_F(watchdog_rules_test, players_are_dropped_for_their_age_one_after_the_other) {
    only(DropRule::AGE);
    player(4, steady(FOUR_MBIT));
    player(2, steady(FOUR_MBIT), 2);
    player(3, steady(FOUR_MBIT), 2);
    clients.push_back({5, "play", steady(FOUR_MBIT), 2, "cam2"});
    publisher(1, steady(FOUR_MBIT));
    EXPECT_THAT(at(16200), IsEmpty());
    EXPECT_THAT(at(16201), ElementsAre(verdict(4, DropRule::AGE, "it has played for 4 h 30 min")));
    age_drops["cam1"] = now_s * SECOND;
    std::erase_if(clients, [](const Client& c) { return c.id == 4; });
    EXPECT_THAT(ids(at(16204)), ElementsAre(5));
    EXPECT_THAT(ids(at(16205)), ElementsAre(2, 5));
}

// Timestamps pass 24 bits after 4 h 39 min 37 s.
TEST(watchdog_defaults,
     a_full_table_of_players_is_dropped_for_its_age_before_timestamps_pass_twenty_four_bits) {
    const WatchdogLimits limits;
    EXPECT_LT(*limits.age_us + (SLOT_COUNT - 1) * limits.stagger_us,
              std::uint64_t{1 << 24} * 1000 - 60 * SECOND);
}

TEST_F(watchdog_rules_test, the_name_at_the_limit_is_kept_and_a_longer_one_dropped) {
    clients.push_back({1, "publish", steady(100), 1, std::string(200, 'a')});
    clients.push_back({2, "play", steady(100), 1, std::string(201, 'a')});
    EXPECT_THAT(at(1), ElementsAre(verdict(2, DropRule::LONG_NAME, "its stream name has 201 bytes")));
}

TEST_F(watchdog_rules_test, publishers_from_elsewhere_are_dropped_and_players_from_elsewhere_kept) {
    limits.publish_from = {*parse_address_range("203.0.113.0/24"), *parse_address_range("10.1.2.3")};
    clients.push_back({1, "publish", steady(100), 1, "cam1", "203.0.113.255"});
    clients.push_back({2, "publish", steady(100), 1, "cam2", "203.0.114.0"});
    clients.push_back({3, "publish", steady(100), 1, "cam3", "10.1.2.3"});
    clients.push_back({4, "play", steady(100), 1, "cam3", "198.51.100.1"});
    EXPECT_THAT(at(1), ElementsAre(verdict(2, DropRule::ORIGIN, "its address is not allowed to publish")));
}

TEST_F(watchdog_rules_test, a_rule_that_is_off_drops_no_client) {
    limits = WatchdogLimits{std::nullopt, std::nullopt, std::nullopt,
                            std::nullopt, std::nullopt, std::nullopt,
                            std::nullopt, {},           0};
    publisher(1, until(10));
    publisher(2, steady(FOUR_MBIT));
    player(3, until(10));
    player(4, steady(FOUR_MBIT));
    clients.push_back({5, "", steady(0), 1, ""});
    clients.push_back({6, "play", steady(0), 1, std::string(1000, 'a')});
    EXPECT_EQ(first_verdict(17000), 0U);
}

TEST_F(watchdog_rules_test, a_server_that_stood_still_makes_no_client_a_suspect) {
    publisher(1, until(10));
    player(2, until(10));
    clients.push_back({3, "", steady(0), 9, ""});
    at(10);
    now_s += 100;  // no listing was answered
    EXPECT_THAT(at(now_s + 1), IsEmpty());
}

TEST(age_drops, the_delays_of_polls_do_not_accumulate_over_a_full_table) {
    constexpr std::uint64_t STAGGER_US = 4000000;
    AgeDrops drops;
    std::uint64_t now_us = 0;
    for (unsigned dropped = 0; dropped < SLOT_COUNT; now_us += 1060000) {
        if (is_age_drop_due(drops, "cam1", now_us, STAGGER_US)) {
            note_age_drop(drops, "cam1", now_us, STAGGER_US);
            ++dropped;
        }
    }
    EXPECT_LE(now_us, (SLOT_COUNT - 1) * STAGGER_US + 2 * SECOND);
    EXPECT_GE(now_us, (SLOT_COUNT - 1) * STAGGER_US);
}

TEST(age_drops, of_another_stream_and_of_long_ago_do_not_delay) {
    constexpr std::uint64_t STAGGER_US = 4000000;
    AgeDrops drops;
    note_age_drop(drops, "cam1", 10 * SECOND, STAGGER_US);
    EXPECT_FALSE(is_age_drop_due(drops, "cam1", 13 * SECOND, STAGGER_US));
    EXPECT_TRUE(is_age_drop_due(drops, "cam2", 13 * SECOND, STAGGER_US));
    note_age_drop(drops, "cam1", 18 * SECOND, STAGGER_US);
    EXPECT_FALSE(is_age_drop_due(drops, "cam1", 21 * SECOND, STAGGER_US));
    forget_age_drops(drops, 25 * SECOND, STAGGER_US);
    EXPECT_THAT(drops, SizeIs(1));
    forget_age_drops(drops, 26 * SECOND, STAGGER_US);
    EXPECT_THAT(drops, IsEmpty());
}

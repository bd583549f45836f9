#include "tools/v9_rtmp_ctl/serve/status_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "tests/tools/observed_clients.h"
#include "tools/v9_rtmp_ctl/serve/status_page.h"

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace {

class status_test : public testing::Test {
  protected:
    void poll(std::uint64_t second, const std::vector<Connection>& connections) {
        const Listing before = view.listing;
        view.listing = {second * ONE_SECOND_US, connections};
        add_rates(before, view.listing);
        view.history.take_in(view.listing);
        view.series.take_in(view.history);
        view.rates.take_in(view.history);
    }
    json document(bool allows_drop = false) const {
        return json::parse(status_json(view, {allows_drop, 1000.5}));
    }

    MonitorView view;
};

}  // namespace

TEST_F(status_test, has_streams_and_connections_with_their_rates_and_ages) {
    for (std::uint64_t s = 1; s <= 7; ++s) {
        poll(s, {observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 500 * s),
                 observed_client(2, "", "", 0, 0)});
    }
    const json status = document(true);
    EXPECT_EQ(status["running"], true);
    EXPECT_EQ(status["message"], nullptr);
    EXPECT_EQ(status["allows_drop"], true);
    EXPECT_EQ(status["slots"], 128);
    EXPECT_EQ(status["time"], 1000.5);
    EXPECT_EQ(status["limit_seconds"], 16777);
    EXPECT_EQ(status["total"]["bytes_in_per_second"], 1000);
    ASSERT_EQ(status["streams"].size(), 1U);
    const json& stream = status["streams"][0];
    EXPECT_EQ(stream["stream"], "cam1");
    EXPECT_EQ(stream["state"], "live");
    EXPECT_EQ(stream["players"], 1);
    EXPECT_EQ(stream["bytes_out_per_second"], 500);
    EXPECT_EQ(stream["history_in"], json::array({1000}));
    ASSERT_EQ(status["connections"].size(), 3U);
    EXPECT_EQ(status["connections"][1]["age_seconds"], 6);
    EXPECT_EQ(status["connections"][1]["stalled"], false);
    EXPECT_EQ(status["connections"][2]["stream"], nullptr);
}

TEST_F(status_test, marks_players_that_are_stalled_behind_or_near_the_timestamp_limit) {
    constexpr std::uint64_t AGE_S = 15578;  // just over 20 minutes before timestamps pass 24 bits
    poll(1, {observed_publisher(0, "cam1", 1000), observed_player(1, "cam1", 1000)});
    for (std::uint64_t s = AGE_S - 40; s <= AGE_S + 1; ++s) {
        poll(s, {observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 1000 * s),
                 observed_player(2, "cam1", 300 * s), observed_player(3, "cam1", 1000 * (AGE_S - 30))});
    }
    const json connections = document()["connections"];
    ASSERT_EQ(connections.size(), 4U);
    const auto marks = [](const json& connection) {
        return std::vector<bool>{connection["stalled"], connection["behind"], connection["near_limit"]};
    };
    EXPECT_EQ(marks(connections[1]), (std::vector<bool>{false, false, true}));
    EXPECT_EQ(marks(connections[2]), (std::vector<bool>{false, true, false}));
    EXPECT_TRUE(marks(connections[3])[0]);
    EXPECT_EQ(connections[1]["age_seconds"], AGE_S);
    EXPECT_GE(connections[2]["behind_seconds"], 20);
    EXPECT_EQ(connections[1]["behind_seconds"], 0);
}

TEST_F(status_test, reports_why_the_server_does_not_answer) {
    view.failure = Failure{ExitCode::NOT_RUNNING, "there is no socket. <start> it."};
    const json status = document();
    EXPECT_EQ(status["running"], false);
    EXPECT_EQ(status["message"], "there is no socket. <start> it.");
    EXPECT_EQ(status["streams"], json::array());
    EXPECT_EQ(status_table(view), "<p>there is no socket. &lt;start&gt; it.</p>");
}

TEST_F(status_test, cuts_long_names) {
    const std::string name(1000000, 'n');
    poll(1,
         {observed_publisher(0, name, 1), observed_publisher(1, "x" + std::string(300, '\xc3') + "\xa4", 1),
          observed_publisher(2, std::string(199, 'e') + "\u00e4\u00e4", 1)});
    EXPECT_LT(status_json(view, {}).size(), 5000U);
    EXPECT_LT(status_table(view).size(), 5000U);
    const json status = document();
    EXPECT_EQ(status["connections"][0]["stream"], std::string(200, 'n') + "\u2026");
    EXPECT_EQ(status["connections"][2]["stream"], std::string(199, 'e') + "\u2026");
}

TEST_F(status_test, distinguishes_streams_that_look_the_same) {
    poll(1, {observed_publisher(0, "a\xff", 1), observed_publisher(1, "a\xfe", 1)});
    const json status = document();
    ASSERT_EQ(status["streams"].size(), 2U);
    EXPECT_EQ(status["streams"][0]["stream"], status["streams"][1]["stream"]);
    EXPECT_NE(status["streams"][0]["key"], status["streams"][1]["key"]);
}

TEST_F(status_test, the_table_escapes_names) {
    poll(1, {observed_publisher(0, "<script>alert(1)</script>\"'&\u202e", 1)});
    const std::string table = status_table(view);
    EXPECT_THAT(table, HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt;&quot;&#39;&amp;\\xE2\\x80\\xAE"));
    EXPECT_THAT(table, Not(HasSubstr("<script")));
}

TEST(status_page, is_filled_once) {
    const std::string page = status_page("THE_NONCE", "<p>{{nonce}}</p>");
    EXPECT_THAT(page, HasSubstr("<script nonce=\"THE_NONCE\">"));
    EXPECT_THAT(page, HasSubstr("<style nonce=\"THE_NONCE\">"));
    EXPECT_THAT(page, HasSubstr("<p>{{nonce}}</p>"));
    EXPECT_THAT(page, Not(HasSubstr("{{table}}")));
}

TEST(status_page, fetches_nothing_from_elsewhere_and_makes_no_markup_of_data) {
    const std::string page(STATUS_PAGE);
    for (const char* const word : {"innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(",
                                   "http:", "https:", " src=", "@import", "onclick", "style=\""}) {
        const std::string without_namespace =
            std::string(page).replace(page.find("http://www.w3.org/2000/svg"), 26, "");
        EXPECT_THAT(without_namespace, Not(HasSubstr(word)));
    }
}

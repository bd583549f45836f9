// The example programs for the control socket, run against the real server: the Python client from the page
// about the socket, and the library's example in C.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/program_process.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

const std::string PAGE = std::string(V9_SOURCE_ROOT) + "/docs/wire/control-socket.md";
const std::string SCRIPT = "/run/client.py";
const std::string FIELD_ORDER =
    "connection field order = connect id,stream name,stream mode,video size,byte sent to,byte recv "
    "from,address\n";

// Returns the page's only block of Python.
std::string page_client() {
    const std::string fence = "```python\n";
    std::ostringstream text;
    text << std::ifstream(PAGE).rdbuf();
    const std::string page = text.str();
    const std::size_t start = page.find(fence);
    if (start == std::string::npos || page.find(fence, start + 1) != std::string::npos) {
        throw TestFailure("not exactly one Python program on " + PAGE);
    }
    const std::size_t first = start + fence.size();
    return page.substr(first, page.find("```", first) - first);
}

// Both print a reply in the same form, one with the status and one without it.
struct Example {
    std::string name;
    std::vector<std::string> command;
    bool shows_status;
};

class control_examples_test : public testing::TestWithParam<Example> {
  protected:
    static ProgramRun ask(const std::vector<std::string>& words) {
        std::vector<std::string> command = GetParam().command;
        command.push_back(CONTROL_SOCKET_PATH);
        command.insert(command.end(), words.begin(), words.end());
        return run_program(command);
    }

    static std::string head(const std::string& command, const std::string& message, std::uint64_t status) {
        return command + ": " + message +
               (GetParam().shows_status ? " (status " + std::to_string(status) + ")" : "") + "\n";
    }
};

}  // namespace

TEST_P(control_examples_test, greets_lists_and_drops) {
    std::ofstream(SCRIPT) << page_client();
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");

    const ProgramRun hello = ask({"hello"});
    EXPECT_EQ(hello.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(hello.out, head("hello", "How are you?", CONTROL_SUCCESS));

    const ProgramRun list = ask({"list connections", "publish"});
    EXPECT_EQ(list.end, (ProgramEnd{0, 0}));
    const std::string begin = head("list connections", "Connection list response", CONTROL_SUCCESS) +
                              FIELD_ORDER + "connection = 0\tcam1\tpublish\t\t";
    EXPECT_EQ(list.out.substr(0, begin.size()), begin);
    EXPECT_THAT(list.out, testing::EndsWith("\t" + publisher.local_address() + "\n"));

    const ProgramRun refused = ask({"drop connection by id", "x5"});
    EXPECT_EQ(refused.end, (ProgramEnd{1, 0}));
    EXPECT_EQ(refused.out, head("drop connection by id", "Bad or invalid connection ID", CONTROL_ERROR));

    const ProgramRun dropped = ask({"drop connection by id", "0", "cam1"});
    EXPECT_EQ(dropped.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(dropped.out, head("drop connection by id", "OK", CONTROL_SUCCESS));
    publisher.expect_closed_without_answer();

    for (const ProgramRun* finished : {&hello, &list, &refused, &dropped}) {
        EXPECT_EQ(finished->err, "");
    }
}

TEST_P(control_examples_test, fails_when_no_server_is_running) {
    std::ofstream(SCRIPT) << page_client();
    std::filesystem::remove(CONTROL_SOCKET_PATH);
    const ProgramRun hello = ask({"hello"});
    EXPECT_NE(hello.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(hello.out, "");
    EXPECT_NE(hello.err, "");
}

INSTANTIATE_TEST_SUITE_P(programs, control_examples_test,
                         testing::Values(Example{"python_of_the_page", {"python3", SCRIPT}, true},
                                         Example{"c_of_the_library", {V9_HELLO_EXAMPLE_PATH}, false}),
                         [](const testing::TestParamInfo<Example>& row) { return row.param.name; });

TEST(control_examples, the_c_example_greets_when_given_no_command) {
    const ServerProcess server;
    const ProgramRun hello = run_program({V9_HELLO_EXAMPLE_PATH, CONTROL_SOCKET_PATH});
    EXPECT_EQ(hello.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(hello.out, "hello: How are you?\n");
}

// The page about the socket: its examples in hex, its Python client, and the C example.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "comm_socket/wire.h"
#include "tests/comm_socket/raw_peer.h"
#include "tests/support/page_example.h"
#include "tests/support/program_process.h"

namespace {

class programs_test : public testing::Test {
  public:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");
    ProgramRun run_python(const std::vector<std::string>& words) const {
        const std::string script = directory.file("client.py");
        std::ofstream(script) << page_block(source_text("docs/wire/control-socket.md"),
                                            "## A client in Python", "```python");
        return run({"python3", script, path}, words);
    }
    ProgramRun run_example(const std::vector<std::string>& words = {}) const {
        return run({HELLO_EXAMPLE, path}, words);
    }

  private:
    static ProgramRun run(std::vector<std::string> command, const std::vector<std::string>& words) {
        command.insert(command.end(), words.begin(), words.end());
        return run_program(std::move(command));
    }
};

}  // namespace

TEST(wire_page, its_request_matches_what_the_library_reads_and_writes) {
    const std::string frame = example_bytes("control_request");
    const auto* s = reinterpret_cast<const unsigned char*>(frame.data());
    std::size_t body_bytes = 0;
    ASSERT_EQ(comm_socket::decode_header(s, s + frame.size(), comm_socket::REQUEST_LIMITS, &body_bytes),
              comm_socket::FrameState::COMPLETE);
    ASSERT_EQ(body_bytes, frame.size() - 8);
    comm_socket::FrameHead head;
    comm_socket::FrameText text;
    ASSERT_TRUE(comm_socket::decode_body(s + 8, s + frame.size(), comm_socket::REQUEST_LIMITS, &head, &text));
    EXPECT_EQ(head.flags, 1u);
    EXPECT_EQ(head.request_id, 7u);
    EXPECT_EQ(head.status, 0u);
    EXPECT_EQ(text.command, "drop connection by id");
    EXPECT_EQ(text.message, "");
    EXPECT_EQ(text.arguments, (Arguments{"5", std::nullopt}));
    EXPECT_TRUE(text.pairs.empty());
    EXPECT_EQ(comm_socket::encode_frame(head, text), frame);
}

TEST(wire_page, its_reply_matches_what_the_library_reads_and_writes) {
    const std::string frame = example_bytes("control_reply");
    const auto* s = reinterpret_cast<const unsigned char*>(frame.data());
    comm_socket::FrameHead head;
    comm_socket::FrameText text;
    ASSERT_TRUE(comm_socket::decode_body(s + 8, s + frame.size(), comm_socket::REPLY_LIMITS, &head, &text));
    EXPECT_EQ(head.flags, 0u);
    EXPECT_EQ(head.request_id, 7u);
    EXPECT_EQ(head.status, 0u);
    EXPECT_EQ(text.command, "list connections");
    EXPECT_EQ(text.message, "Connection list response");
    EXPECT_TRUE(text.arguments.empty());
    EXPECT_EQ(text.pairs,
              (Pairs{{"connection field order", "connect id,stream name"}, {"connection", "5\tcam1"}}));
    EXPECT_EQ(comm_socket::encode_frame(head, text), frame);
}

TEST_F(programs_test, the_python_client_of_the_page_runs_unchanged) {
    const EchoServer server(path);
    const ProgramRun hello = run_python({"hello"});
    EXPECT_EQ(hello.out + hello.err, "hello: How are you? (status 0)\n");
    EXPECT_EQ(hello.end, (ProgramEnd{0, 0}));
    EXPECT_EQ(run_python({"echo", "one", "", "two words"}).out,
              "echo: How are you? (status 0)\nargument = one\nargument = \nargument = two words\n");
    const ProgramRun unknown = run_python({"reload"});
    EXPECT_EQ(unknown.out + unknown.err, "reload: Unknown command (status 6)\n");
    EXPECT_EQ(unknown.end, (ProgramEnd{1, 0}));
}

TEST_F(programs_test, the_c_example_runs) {
    {
        const EchoServer server(path);
        const ProgramRun hello = run_example();
        EXPECT_EQ(hello.out + hello.err, "hello: How are you?\n");
        EXPECT_EQ(hello.end, (ProgramEnd{0, 0}));
        EXPECT_EQ(run_example({"echo", "one", ""}).out, "echo: How are you?\nargument = one\nargument = \n");
        EXPECT_EQ(run_example({"reload"}).end, (ProgramEnd{1, 0}));
    }
    const ProgramRun stopped = run_example();
    EXPECT_EQ(stopped.out + stopped.err, path + ": no such socket\n");
    EXPECT_EQ(stopped.end, (ProgramEnd{3, 0}));
    EXPECT_EQ(run_program({HELLO_EXAMPLE}).end, (ProgramEnd{2, 0}));
}

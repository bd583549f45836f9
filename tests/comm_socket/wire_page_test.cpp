// The page about the socket, the files of bytes it shows, the Python client on it and the C example.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "comm_socket/wire.h"
#include "tests/comm_socket/raw_peer.h"
#include "tests/support/program_process.h"

namespace {

std::string read_file(const std::string& name) {
    std::ifstream file(std::string(SOURCE_ROOT) + "/" + name);
    EXPECT_TRUE(file.is_open()) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The fenced block that follows the mark.
std::string block_after(const std::string& page, const std::string& mark, const std::string& fence) {
    const std::size_t start = page.find(fence + "\n", page.find(mark));
    EXPECT_NE(page.find(mark), std::string::npos) << mark;
    EXPECT_NE(start, std::string::npos) << mark;
    const std::size_t first = start + fence.size() + 1;
    return page.substr(first, page.find("```", first) - first);
}

std::string bytes_of_hex(const std::string& hex) {
    std::istringstream words(hex);
    std::string bytes;
    for (unsigned value = 0; words >> std::hex >> value;)
        bytes += static_cast<char>(value);
    return bytes;
}

class programs_test : public testing::Test {
  public:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");
    ProgramRun run_python(const std::vector<std::string>& words) const {
        const std::string script = directory.file("client.py");
        std::ofstream(script) << block_after(read_file("docs/wire/control-socket.md"),
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

const char* const PAGE = "docs/wire/control-socket.md";

}  // namespace

TEST(wire_page, shows_the_bytes_of_the_files) {
    for (const char* name : {"tests/data/control_request.hex", "tests/data/control_reply.hex"})
        EXPECT_EQ(block_after(read_file(PAGE), std::string("<!-- ") + name, "```"), read_file(name));
}

TEST(wire_page, its_request_is_what_the_library_reads_and_writes) {
    const std::string frame = bytes_of_hex(read_file("tests/data/control_request.hex"));
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

TEST(wire_page, its_reply_is_what_the_library_reads_and_writes) {
    const std::string frame = bytes_of_hex(read_file("tests/data/control_reply.hex"));
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

TEST_F(programs_test, the_python_client_of_the_page_runs_as_it_stands) {
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

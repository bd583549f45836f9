// A control server whose listing is a file, so it may contain lines that no real server would list.
//
//   listing_server FILE
//
// Prints the path of its socket, and answers until its standard input ends. The file holds the lines of the
// listing, each followed by a NUL; it is read again for each answer. A drop is answered with "OK" and
// changes nothing.
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "tests/tools/fake_server.h"

namespace {

Reply list(const std::string& file, const std::string& command) {
    Reply reply{0, command, "Connection list response", {{"connection field order", "..."}}};
    std::ifstream lines(file, std::ios::binary);
    for (std::string line; std::getline(lines, line, '\0');) {
        reply.pairs.emplace_back("connection", line);
    }
    return reply;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: listing_server FILE\n";
        return 2;
    }
    const std::string file = argv[1];
    const FakeServer server([&file](const Request& request, bool /*async*/) {
        return std::optional<Reply>(request.command == "list connections"
                                        ? list(file, request.command)
                                        : Reply{0, request.command, "OK", {}});
    });
    std::cout << server.path() << std::endl;
    const std::string all{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
    return 0;
}

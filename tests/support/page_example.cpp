#include "tests/support/page_example.h"

#include <fstream>
#include <sstream>

#include "tests/support/test_failure.h"
#include "tests/support/wire_bytes.h"

std::string source_text(const std::string& name) {
    const std::ifstream file(V9_SOURCE_ROOT "/" + name);
    if (!file.is_open()) {
        throw TestFailure("no file " + name);
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string page_block(const std::string& page, const std::string& mark, const std::string& fence) {
    const std::size_t start = page.find(fence + "\n", page.find(mark));
    if (page.find(mark) == std::string::npos || start == std::string::npos) {
        throw TestFailure("no block after " + mark);
    }
    const std::size_t first = start + fence.size() + 1;
    return page.substr(first, page.find("```", first) - first);
}

std::string example_bytes(const std::string& name) {
    return from_hex(source_text("tests/data/" + name + ".hex"));
}

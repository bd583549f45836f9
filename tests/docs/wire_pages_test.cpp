// The pages in docs/wire show the files in tests/data, which the tests of each format load.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/support/page_example.h"

namespace {

std::set<std::string> files_in(const std::string& folder, const std::string& extension) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(V9_SOURCE_ROOT "/" + folder)) {
        if (entry.path().extension() == extension) {
            names.insert(folder + "/" + entry.path().filename().string());
        }
    }
    return names;
}

// Returns the names of the examples that the comments of a page announce.
std::vector<std::string> announced_examples(const std::string& page) {
    const std::string begin = "<!-- tests/data/";
    std::vector<std::string> names;
    for (std::size_t at = page.find(begin); at != std::string::npos; at = page.find(begin, at + 1)) {
        const std::size_t first = at + begin.size();
        names.push_back("tests/data/" + page.substr(first, page.find(" -->", first) - first));
    }
    return names;
}

}  // namespace

TEST(wire_pages, show_the_bytes_that_the_tests_load) {
    for (const std::string& page_name : files_in("docs/wire", ".md")) {
        const std::string page = source_text(page_name);
        for (const std::string& name : announced_examples(page)) {
            EXPECT_EQ(page_block(page, "<!-- " + name + " -->"), source_text(name)) << page_name;
        }
    }
}

TEST(wire_pages, show_every_example_once) {
    std::vector<std::string> shown;
    for (const std::string& page_name : files_in("docs/wire", ".md")) {
        const std::vector<std::string> names = announced_examples(source_text(page_name));
        EXPECT_FALSE(names.empty()) << page_name;
        shown.insert(shown.end(), names.begin(), names.end());
    }
    const std::set<std::string> files = files_in("tests/data", ".hex");
    EXPECT_EQ(std::set(shown.begin(), shown.end()), files);
    EXPECT_EQ(shown.size(), files.size());
}

// Texts of the checkout that tests read: its pages, and the examples in hex that pages and tests share.
#pragma once

#include <string>

// Returns the text of a file; the name is relative to the root of the checkout. Throws TestFailure if there is
// no such file.
std::string source_text(const std::string& name);

// Returns the block that begins with the first such fence line after the mark. Throws TestFailure if the page
// has none.
std::string page_block(const std::string& page, const std::string& mark, const std::string& fence = "```");

// Returns the bytes of tests/data/NAME.hex, which a page in docs/wire shows.
std::string example_bytes(const std::string& name);

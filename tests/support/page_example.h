// Reads texts of the checkout: its pages, and the hex examples shared by pages and tests.
#pragma once

#include <string>

// Returns the text of a file, named relative to the root of the checkout. Throws TestFailure if there
// is none.
std::string source_text(const std::string& name);

// Returns the block that follows the mark and begins with the fence. Throws TestFailure if there is none.
std::string page_block(const std::string& page, const std::string& mark, const std::string& fence = "```");

// Returns the bytes of tests/data/NAME.hex, which a page in docs/wire shows.
std::string example_bytes(const std::string& name);

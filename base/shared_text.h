// Immutable text whose copies share its bytes. Different threads may use different copies.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

class SharedText {
  public:
    SharedText() = default;
    // Only copied, never moved from, so that an object keeps its text.
    SharedText(const SharedText&) = default;
    SharedText& operator=(const SharedText&) = default;
    ~SharedText() = default;
    SharedText& operator=(std::string new_text) {
        text = std::make_shared<const std::string>(std::move(new_text));
        return *this;
    }

    // Returns the text. Valid while this object or a copy of it holds the text.
    [[nodiscard]] const std::string& str() const { return text != nullptr ? *text : NO_TEXT; }
    operator const std::string&() const { return str(); }
    [[nodiscard]] bool empty() const { return str().empty(); }

    friend bool operator==(const SharedText& one, std::string_view other) { return one.str() == other; }

  private:
    static inline const std::string NO_TEXT;

    std::shared_ptr<const std::string> text;  // null until a text is assigned
};

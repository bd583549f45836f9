#include "amf/amf_dump.h"

#include <array>
#include <cstdio>
#include <map>
#include <string_view>
#include <vector>

#include "base/diag.h"

namespace {

constexpr std::size_t BLOCK_BYTES = 64 * 1024;

// Indents, relative to the type line of the same value or to the braces around the member.
constexpr std::size_t PAYLOAD_SPACES = 2;  // payload and braces, from the type line
constexpr std::size_t KEY_SPACES = 2;      // a member's key, from the braces
constexpr std::size_t MEMBER_SPACES = 4;   // a member's type line, from the braces

// Indexed by marker.
constexpr std::array<const char*, 17> TYPE_NAMES = {
    "Number",     "Boolean",     "String",    "Object",      "MovieClip",   "Null",
    "Undefined",  "Reference",   "ECMAArray", "ObjectEnd",   "StrictArray", "Date",
    "LongString", "Unsupported", "Recordset", "XMLDocument", "TypedObject"};

std::string_view type_name(AMF_Type type) {
    const auto marker = static_cast<std::size_t>(type);
    return marker < TYPE_NAMES.size() ? TYPE_NAMES[marker] : "";
}

std::string_view up_to_zero(const std::string& text) {
    return std::string_view(text).substr(0, text.find('\0'));
}

// Collects the lines of one dump and writes them to standard error in blocks.
class DumpText {
  public:
    explicit DumpText(const std::string& prefix) : indent(prefix) {}

    // Appends the indentation, the spaces, the three pieces and a newline. Returns false if the text would
    // become too long; the line is then not built, and every later call returns false too.
    [[nodiscard]] bool line(std::size_t spaces, std::string_view head, std::string_view middle,
                            std::string_view tail) {
        const std::size_t length = indent.size() + spaces + head.size() + middle.size() + tail.size() + 1;
        if (cut || length > left) {
            cut = true;
            return false;
        }
        left -= length;
        block.append(indent).append(spaces, ' ').append(head).append(middle).append(tail).append(1, '\n');
        if (block.size() >= BLOCK_BYTES) {
            diag_block(block);
            block.clear();
        }
        return true;
    }

    void finish() {
        if (cut) {
            block.append("WARNING: AMF dump cut\n");
        }
        if (!block.empty()) {
            diag_block(block);
        }
    }

  private:
    const std::string& indent;
    std::string block;
    std::size_t left = AMF_DUMP_MAX_BYTES;
    bool cut = false;
};

// An object whose brace is open, and its remaining members.
struct OpenObject {
    AMF_MemberMap::const_iterator next;
    AMF_MemberMap::const_iterator end;
    std::size_t spaces;  // indent of its braces
    bool braces;         // whether to print a closing brace
};

bool dump_number(DumpText& text, std::size_t spaces, double number) {
    // The largest number has 309 digits.
    std::array<char, 336> digits{};
    std::snprintf(digits.data(), digits.size(), "%.3f", number);
    return text.line(spaces, "Value: ", digits.data(), "");
}

// Prints the lines of one value. For an object, prints only the lines up to the opening brace and adds the
// object to open.
bool dump_start(DumpText& text, std::vector<OpenObject>& open, std::size_t spaces, const AMF_Value& v) {
    if (!text.line(spaces, "AMF var ", type_name(v.type), "")) {
        return false;
    }
    const std::size_t inner = spaces + PAYLOAD_SPACES;
    switch (v.type) {
        case AMF_Type::Number:
            return dump_number(text, inner, v.number);
        case AMF_Type::Boolean:
            return text.line(inner, "Value: ", v.boolean != 0 ? "true" : "false", "");
        case AMF_Type::String:
        case AMF_Type::LongString:
        case AMF_Type::XMLDocument:
            return text.line(inner, "Value: '", up_to_zero(v.string), "'");
        case AMF_Type::Object:
        case AMF_Type::ECMAArray:
            open.push_back({v.members.begin(), v.members.end(), inner, true});
            return text.line(inner, "Object: {", "", "");
        case AMF_Type::MovieClip:
        case AMF_Type::Null:
        case AMF_Type::Undefined:
        case AMF_Type::Reference:
        case AMF_Type::ObjectEnd:
        case AMF_Type::StrictArray:
        case AMF_Type::Date:
        case AMF_Type::Unsupported:
        case AMF_Type::Recordset:
        case AMF_Type::TypedObject:
            return true;
    }
    return true;  // A failed decode may leave any type; it is printed without a name.
}

// Continues until no object is open or the text is cut.
void dump_members(DumpText& text, std::vector<OpenObject>& open) {
    while (!open.empty()) {
        OpenObject& object = open.back();
        if (object.next != object.end) {
            const auto& [key, value] = *object.next++;
            const std::size_t spaces = object.spaces;
            if (!text.line(spaces + KEY_SPACES, "'", up_to_zero(key), "':") ||
                !dump_start(text, open, spaces + MEMBER_SPACES, value)) {
                return;
            }
            continue;
        }
        if (object.braces && !text.line(object.spaces, "}", "", "")) {
            return;
        }
        open.pop_back();
    }
}

}  // namespace

void AMF_DumpValue(const AMF_Value& v, const std::string& indent) {
    DumpText text(indent);
    std::vector<OpenObject> open;
    if (dump_start(text, open, 0, v)) {
        dump_members(text, open);
    }
    text.finish();
}

void AMF_DumpMembers(const AMF_Value& v, const std::string& indent) {
    DumpText text(indent);
    std::vector<OpenObject> open{{v.members.begin(), v.members.end(), 0, false}};
    dump_members(text, open);
    text.finish();
}

// One AMF0 value and, through its members, a whole tree: the form of everything that commands and data
// messages carry. Main thread only, so there is no lock; AMF_UndefinedValue is never written and may be read
// anywhere.
//
// 1. A value owns everything below it: no sharing, no cycles. A copy is a copy of the whole tree.
// 2. Members iterate in byte-wise key order (bytes unsigned, a prefix first), never in the order of arrival.
// 3. Peers choose how deep a tree is, so nothing here recurses: the depth is bounded by the heap alone.
//    Destruction, reset and moves allocate nothing and cannot fail.
// 4. Copying and inserting may throw std::bad_alloc; nothing leaks, and the target of a copy assignment keeps
//    its value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct AMF_Value;

// The marker byte of a value. Holds any number: a marker that has no name here stays in `type` when its
// decoding is refused.
enum class AMF_Type : std::uint32_t {
    Number = 0x00,
    Boolean = 0x01,
    String = 0x02,
    Object = 0x03,
    MovieClip = 0x04,
    Null = 0x05,
    Undefined = 0x06,
    Reference = 0x07,
    ECMAArray = 0x08,
    ObjectEnd = 0x09,
    StrictArray = 0x0A,
    Date = 0x0B,
    LongString = 0x0C,
    Unsupported = 0x0D,
    Recordset = 0x0E,
    XMLDocument = 0x0F,
    TypedObject = 0x10,
};

// Strings of this length and longer do not fit a 16-bit length.
constexpr std::size_t AMF_LONG_STRING_BYTES = 65536;

// The values directly below a value, in a container that is allocated when the first one arrives: most values
// have none, and a message may hold a hundred thousand values.
template <typename Container>
class AMF_Children {
  public:
    constexpr AMF_Children() = default;
    AMF_Children(AMF_Children&& other) noexcept : block(std::exchange(other.block, nullptr)) {}
    // Exchanges the contents: what the target held is destroyed with other.
    AMF_Children& operator=(AMF_Children&& other) noexcept {
        std::swap(block, other.block);
        return *this;
    }
    AMF_Children(const AMF_Children&) = delete;
    AMF_Children& operator=(const AMF_Children&) = delete;
    ~AMF_Children() { clear(); }

    [[nodiscard]] bool empty() const { return block == nullptr || block->items.empty(); }
    [[nodiscard]] std::size_t size() const { return block == nullptr ? 0 : block->items.size(); }
    // Without a container, both are the value-initialised iterator, which compares equal to itself.
    [[nodiscard]] auto begin() const {
        return block == nullptr ? typename Container::const_iterator{} : block->items.cbegin();
    }
    [[nodiscard]] auto end() const {
        return block == nullptr ? typename Container::const_iterator{} : block->items.cend();
    }

    // Destroys everything below, however deep.
    void clear() noexcept;

  protected:
    struct Block {
        Container items;
        Block* next_to_destroy = nullptr;  // used by clear() alone
    };
    Container& items_or_create();
    Block* block = nullptr;

  private:
    friend class AMF_PendingBlocks;
};

using AMF_MemberMap = std::map<std::string, AMF_Value, std::less<>>;

// The named values of an Object or ECMAArray. Iterates as pairs of key and value.
class AMF_Members : public AMF_Children<AMF_MemberMap> {
  public:
    // Null when there is no such member.
    [[nodiscard]] const AMF_Value* find(std::string_view key) const;

    // Inserts a value in the default state when there is none under key.
    AMF_Value& find_or_insert(std::string_view key);

    // Moves value in; one that stood under key before is destroyed.
    void store(std::string&& key, AMF_Value&& value);

    // Requires that key sorts after every key so far; takes constant time.
    AMF_Value& append(const std::string& key);
};

// The items of a strict array. Neither decoder nor encoder knows strict arrays, so only our own code fills
// it.
class AMF_Elements : public AMF_Children<std::vector<AMF_Value>> {
  public:
    AMF_Value& append();
    // Requires idx < size().
    AMF_Value& operator[](std::size_t idx);
    const AMF_Value& operator[](std::size_t idx) const;
};

struct AMF_Value {
    AMF_Type type = AMF_Type::Undefined;
    std::uint8_t boolean = 0;  // Boolean: the byte as received or set; every byte but 0 is true
    double number = 0;         // Number
    std::string string;        // String, LongString, XMLDocument: any bytes, zeros included
    AMF_Members members;       // Object, ECMAArray
    AMF_Elements elements;     // StrictArray

    constexpr AMF_Value() = default;
    AMF_Value(const AMF_Value& other);
    // The value moved from has nothing below it; reset it, assign to it or let it go.
    AMF_Value(AMF_Value&& other) noexcept = default;
    // Both assignments accept the value itself and any value below it.
    AMF_Value& operator=(const AMF_Value& other);
    AMF_Value& operator=(AMF_Value&& other) noexcept;
    ~AMF_Value() = default;

    // Building, on a value in the default state.
    void set_number(double x);
    // String, or LongString from AMF_LONG_STRING_BYTES on: always a type that can be encoded.
    void set_string(std::string_view s);
    void set_null();
    // The member under key, inserted in the default state when there is none. Leaves type alone.
    AMF_Value& member(std::string_view key);

    // The member under key, or AMF_UndefinedValue. Does not look at type: only members are ever found.
    [[nodiscard]] const AMF_Value& find_member(std::string_view key) const;

    // Back to the default state, except number and boolean, which keep what they hold.
    void reset();
};

// What a lookup of an absent member returns: the default state, for ever. Exists before any other object of
// static lifetime is initialised.
extern const AMF_Value AMF_UndefinedValue;

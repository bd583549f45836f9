// An AMF0 value and, through its members, a whole tree of them. Commands and data messages carry such values.
// Main thread only, so there is no lock. AMF_UndefinedValue is never written, so any thread may read it.
//
// 1. A value owns everything below it. There is no sharing and there are no cycles. Copying a value copies
//    the whole tree.
// 2. Members are iterated in byte-wise key order (unsigned bytes, a prefix first), not in order of arrival.
// 3. Peers choose the depth of a tree, so nothing here recurses: only the heap limits the depth. Destruction,
//    reset and moves do not allocate and cannot fail.
// 4. Copying and inserting may throw std::bad_alloc. Nothing leaks, and the target of a failed copy
//    assignment keeps its value.
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

// The marker byte of a value. Values other than these can occur: if the decoder refuses an unknown marker,
// that marker stays in `type`.
enum class AMF_Type : std::uint32_t {
    // NOLINTBEGIN(readability-identifier-naming): the names that AMF0 gives its types
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
    // NOLINTEND(readability-identifier-naming)
};

// The smallest string length that does not fit in 16 bits.
constexpr std::size_t AMF_LONG_STRING_BYTES = 65536;

// The values directly below a value. The container is allocated when the first one is added, since most
// values have none and a message may hold a hundred thousand values.
template <typename Container>
class AMF_Children {
  public:
    constexpr AMF_Children() = default;
    AMF_Children(AMF_Children&& other) noexcept : block(std::exchange(other.block, nullptr)) {}
    AMF_Children(const AMF_Children&) = delete;
    AMF_Children& operator=(const AMF_Children&) = delete;
    ~AMF_Children() { clear(); }

    [[nodiscard]] bool empty() const { return block == nullptr || block->items.empty(); }
    [[nodiscard]] std::size_t size() const { return block == nullptr ? 0 : block->items.size(); }
    // Without a container, both return a value-initialised iterator, and two of these compare equal.
    [[nodiscard]] auto begin() const {
        return block == nullptr ? typename Container::const_iterator{} : block->items.cbegin();
    }
    [[nodiscard]] auto end() const {
        return block == nullptr ? typename Container::const_iterator{} : block->items.cend();
    }

    void swap(AMF_Children& other) noexcept { std::swap(block, other.block); }

    // Destroys everything below this value, at any depth.
    void clear() noexcept;

  protected:
    struct Block {
        Container items;
        Block* next_to_destroy = nullptr;  // used only by clear()
    };
    Container& items_or_create();
    Block* block = nullptr;

  private:
    friend class AMF_PendingBlocks;
};

using AMF_MemberMap = std::map<std::string, AMF_Value, std::less<>>;

// The named values of an Object or ECMAArray. Iteration yields pairs of key and value.
class AMF_Members : public AMF_Children<AMF_MemberMap> {
  public:
    // Returns null if there is no such member.
    [[nodiscard]] const AMF_Value* find(std::string_view key) const;

    // Returns the value under key; inserts one in the default state if there is none.
    AMF_Value& find_or_insert(std::string_view key);

    // Stores value under key and destroys the previous value, if any.
    void store(std::string&& key, AMF_Value&& value);

    // Appends a value in the default state in constant time. Requires that key sorts after all existing keys.
    AMF_Value& append(const std::string& key);
};

// The items of a strict array. The decoder and the encoder do not support strict arrays, so a received value
// never has any.
class AMF_Elements : public AMF_Children<std::vector<AMF_Value>> {
  public:
    AMF_Value& append();
    // Requires idx < size().
    AMF_Value& operator[](std::size_t idx);
    const AMF_Value& operator[](std::size_t idx) const;
};

struct AMF_Value {
    AMF_Type type = AMF_Type::Undefined;
    std::uint8_t boolean = 0;  // Boolean: the byte as received or set; every byte except 0 is true
    double number = 0;         // Number
    std::string string;        // String, LongString, XMLDocument: any bytes, including zero
    AMF_Members members;       // Object, ECMAArray
    AMF_Elements elements;     // StrictArray

    constexpr AMF_Value() = default;
    AMF_Value(const AMF_Value& other);
    // A moved-from value has nothing below it; reset it, assign to it or destroy it.
    AMF_Value(AMF_Value&& other) noexcept = default;
    // Both assignments also accept the value itself and any value below it.
    AMF_Value& operator=(const AMF_Value& other);
    AMF_Value& operator=(AMF_Value&& other) noexcept;
    ~AMF_Value() = default;

    // Setters, for a value in the default state.
    void set_number(double x);
    // Sets a String, or a LongString if s has AMF_LONG_STRING_BYTES or more, so that it can be encoded.
    void set_string(std::string_view s);
    void set_null();
    // Returns the member under key; inserts one in the default state if there is none. Does not change type.
    AMF_Value& member(std::string_view key);

    // Returns the member under key, or AMF_UndefinedValue. Does not check type.
    [[nodiscard]] const AMF_Value& find_member(std::string_view key) const;

    // Restores the default state, except for number and boolean, which keep their values.
    void reset();
};

// The result of looking up an absent member. Always in the default state. Initialised before any other object
// of static storage duration.
extern const AMF_Value AMF_UndefinedValue;

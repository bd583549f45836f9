#include "amf/amf_value.h"

#include <type_traits>  // IWYU pragma: keep, for is_same_v

// Destroys trees of any depth without recursion: pending blocks are linked through a field of the block. A
// block is freed only after its values have given up their children.
class AMF_PendingBlocks {
  public:
    void take(AMF_Value& value) {
        take(value.members, members);
        take(value.elements, elements);
    }

    template <typename Container>
    void take(AMF_Children<Container>& children) {
        if constexpr (std::is_same_v<Container, AMF_MemberMap>) {
            take(children, members);
        } else {
            take(children, elements);
        }
    }

    void destroy_all() {
        while (members != nullptr || elements != nullptr) {
            if (members != nullptr) {
                MemberBlock* block = std::exchange(members, members->next_to_destroy);
                for (auto& [key, value] : block->items) {
                    take(value);
                }
                delete block;
            } else {
                ElementBlock* block = std::exchange(elements, elements->next_to_destroy);
                for (AMF_Value& value : block->items) {
                    take(value);
                }
                delete block;
            }
        }
    }

  private:
    using MemberBlock = AMF_Children<AMF_MemberMap>::Block;
    using ElementBlock = AMF_Children<std::vector<AMF_Value>>::Block;

    template <typename Children, typename Block>
    static void take(Children& children, Block*& pending) {
        if (children.block != nullptr) {
            children.block->next_to_destroy = pending;
            pending = std::exchange(children.block, nullptr);
        }
    }

    MemberBlock* members = nullptr;
    ElementBlock* elements = nullptr;
};

template <typename Container>
void AMF_Children<Container>::clear() noexcept {
    if (block != nullptr) {
        AMF_PendingBlocks pending;
        pending.take(*this);
        pending.destroy_all();
    }
}

template <typename Container>
Container& AMF_Children<Container>::items_or_create() {
    if (block == nullptr) {
        block = new Block;
    }
    return block->items;
}

template class AMF_Children<AMF_MemberMap>;
template class AMF_Children<std::vector<AMF_Value>>;

const AMF_Value* AMF_Members::find(std::string_view key) const {
    if (block == nullptr) {
        return nullptr;
    }
    const auto found = block->items.find(key);
    return found == block->items.end() ? nullptr : &found->second;
}

AMF_Value& AMF_Members::find_or_insert(std::string_view key) {
    AMF_MemberMap& map = items_or_create();
    const auto place = map.lower_bound(key);
    if (place != map.end() && place->first == key) {
        return place->second;
    }
    return map.emplace_hint(place, key, AMF_Value())->second;
}

void AMF_Members::store(std::string&& key, AMF_Value&& value) {
    items_or_create().insert_or_assign(std::move(key), std::move(value));
}

AMF_Value& AMF_Members::append(const std::string& key) {
    AMF_MemberMap& map = items_or_create();
    return map.emplace_hint(map.end(), key, AMF_Value())->second;
}

AMF_Value& AMF_Elements::append() {
    return items_or_create().emplace_back();
}

AMF_Value& AMF_Elements::operator[](std::size_t idx) {
    return block->items[idx];
}

const AMF_Value& AMF_Elements::operator[](std::size_t idx) const {
    return block->items[idx];
}

namespace {

// A value whose children are still to be copied, and their destination.
struct PendingCopy {
    const AMF_Value* from;
    AMF_Value* to;
};

void copy_node(const AMF_Value& from, AMF_Value& to, std::vector<PendingCopy>& pending) {
    to.type = from.type;
    to.boolean = from.boolean;
    to.number = from.number;
    to.string = from.string;
    if (!from.members.empty() || !from.elements.empty()) {
        pending.push_back({&from, &to});
    }
}

}  // namespace

AMF_Value::AMF_Value(const AMF_Value& other) {
    std::vector<PendingCopy> pending;
    copy_node(other, *this, pending);
    while (!pending.empty()) {
        const PendingCopy next = pending.back();
        pending.pop_back();
        for (const auto& [key, value] : next.from->members) {
            copy_node(value, next.to->members.append(key), pending);
        }
        // Append all elements first: `pending` points to them, so they must not move.
        for (std::size_t i = 0; i < next.from->elements.size(); ++i) {
            next.to->elements.append();
        }
        for (std::size_t i = 0; i < next.from->elements.size(); ++i) {
            copy_node(next.from->elements[i], next.to->elements[i], pending);
        }
    }
}

AMF_Value& AMF_Value::operator=(const AMF_Value& other) {
    if (this != &other) {
        *this = AMF_Value(other);
    }
    return *this;
}

AMF_Value& AMF_Value::operator=(AMF_Value&& other) noexcept {
    // Moves through a temporary, because other may be below the value that is replaced.
    AMF_Value taken(std::move(other));
    type = taken.type;
    boolean = taken.boolean;
    number = taken.number;
    string.swap(taken.string);
    members.swap(taken.members);
    elements.swap(taken.elements);
    return *this;
}

void AMF_Value::set_number(double x) {
    type = AMF_Type::Number;
    number = x;
}

void AMF_Value::set_string(std::string_view s) {
    string = s;
    type = s.size() < AMF_LONG_STRING_BYTES ? AMF_Type::String : AMF_Type::LongString;
}

void AMF_Value::set_null() {
    type = AMF_Type::Null;
}

AMF_Value& AMF_Value::member(std::string_view key) {
    return members.find_or_insert(key);
}

const AMF_Value& AMF_Value::find_member(std::string_view key) const {
    const AMF_Value* found = members.find(key);
    return found == nullptr ? AMF_UndefinedValue : *found;
}

void AMF_Value::reset() {
    type = AMF_Type::Undefined;
    string.clear();
    members.clear();
    elements.clear();
}

// Initialised before the objects of all other files, and so destroyed after them. 101 is the highest priority
// that is not reserved for the compiler.
[[gnu::init_priority(101)]] const AMF_Value AMF_UndefinedValue;

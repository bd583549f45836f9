#include "tests/support/amf_bytes.h"

#include <bit>

#include "tests/support/test_failure.h"

Bytes amf_number(double value) {
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(value);
    return bytes_of({AMF_NUMBER}) + be32(static_cast<std::uint32_t>(bits >> 32)) +
           be32(static_cast<std::uint32_t>(bits));
}

Bytes amf_boolean(int byte) {
    return bytes_of({AMF_BOOLEAN, byte});
}

Bytes amf_string(std::string_view text) {
    return bytes_of({AMF_STRING}) + amf_key(text);
}

Bytes amf_long_string(std::string_view text) {
    return bytes_of({AMF_LONG_STRING}) + be32(static_cast<std::uint32_t>(text.size())) + Bytes(text);
}

Bytes amf_xml_document(std::string_view text) {
    return bytes_of({AMF_XML_DOCUMENT}) + be32(static_cast<std::uint32_t>(text.size())) + Bytes(text);
}

Bytes amf_null() {
    return bytes_of({AMF_NULL});
}

Bytes amf_undefined() {
    return bytes_of({AMF_UNDEFINED});
}

Bytes amf_object(const AmfMembers& members) {
    return bytes_of({AMF_OBJECT}) + amf_members(members) + amf_end();
}

Bytes amf_ecma_array(std::uint32_t count, const AmfMembers& members) {
    return bytes_of({AMF_ECMA_ARRAY}) + be32(count) + amf_members(members) + amf_end();
}

Bytes amf_key(std::string_view key) {
    if (key.size() > 0xFFFF) {
        throw TestFailure("a key or string of more than 65535 bytes");
    }
    return be16(static_cast<std::uint32_t>(key.size())) + Bytes(key);
}

Bytes amf_members(const AmfMembers& members) {
    Bytes result;
    for (const auto& [key, value] : members) {
        result += amf_key(key) + value;
    }
    return result;
}

Bytes amf_end() {
    return bytes_of({0, 0, AMF_OBJECT_END});
}

AmfNode::AmfNode() = default;
AmfNode::~AmfNode() = default;
AmfNode::AmfNode(const AmfNode& other) = default;
AmfNode::AmfNode(AmfNode&& other) noexcept = default;
AmfNode& AmfNode::operator=(const AmfNode& other) = default;
AmfNode& AmfNode::operator=(AmfNode&& other) noexcept = default;

bool AmfNode::has(std::string_view key) const {
    for (const auto& [name, value] : members) {
        if (name == key) {
            return true;
        }
    }
    return false;
}

const AmfNode& AmfNode::at(std::string_view key) const {
    for (const auto& [name, value] : members) {
        if (name == key) {
            return value;
        }
    }
    throw TestFailure("no member '" + std::string(key) + "'");
}

namespace {

class Decoder {
  public:
    explicit Decoder(std::string_view payload) : data(payload) {}

    bool at_end() const { return position == data.size(); }

    AmfNode value() {
        AmfNode node;
        node.marker = static_cast<std::uint8_t>(take(1)[0]);
        switch (node.marker) {
            case AMF_NUMBER:
                node.number = number();
                break;
            case AMF_BOOLEAN:
                node.boolean = static_cast<unsigned char>(take(1)[0]);
                break;
            case AMF_STRING:
                node.string = short_string();
                break;
            case AMF_LONG_STRING:
            case AMF_XML_DOCUMENT: {
                const std::uint32_t length = get_be32(take(4));
                node.string = take(length);
                break;
            }
            case AMF_NULL:
            case AMF_UNDEFINED:
                break;
            case AMF_ECMA_ARRAY:
                node.ecma_count = get_be32(take(4));
                read_members(node);
                if (node.members.size() != node.ecma_count) {
                    throw TestFailure("an ECMA array announces " + std::to_string(node.ecma_count) +
                                      " members and has " + std::to_string(node.members.size()));
                }
                break;
            case AMF_OBJECT:
                read_members(node);
                break;
            default:
                throw TestFailure("AMF marker " + std::to_string(node.marker) +
                                  " in a message of the server");
        }
        return node;
    }

  private:
    std::string_view take(std::size_t count) {
        if (data.size() - position < count) {
            throw TestFailure("an AMF value is cut short at byte " + std::to_string(position));
        }
        position += count;
        return data.substr(position - count, count);
    }

    double number() {
        const std::string_view raw = take(8);
        return std::bit_cast<double>(std::uint64_t{get_be32(raw)} << 32 | get_be32(raw, 4));
    }

    std::string short_string() {
        const std::uint32_t length = get_be16(take(2));
        return std::string(take(length));
    }

    void read_members(AmfNode& node) {
        while (true) {
            std::string key = short_string();
            if (key.empty() && position < data.size() && data[position] == AMF_OBJECT_END) {
                (void)take(1);
                return;
            }
            node.members.emplace_back(std::move(key), value());
        }
    }

    std::string_view data;
    std::size_t position = 0;
};

}  // namespace

std::vector<AmfNode> amf_decode_all(std::string_view payload) {
    Decoder decoder(payload);
    std::vector<AmfNode> values;
    while (!decoder.at_end()) {
        values.push_back(decoder.value());
    }
    return values;
}

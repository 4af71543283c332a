#include "platform/formats/PropertyList.h"

#include "platform/base/Owned.h"
#include "platform/formats/BinaryPropertyList.h"
#include "platform/formats/BinaryPropertyListWriter.h"
#include "platform/formats/PropertyListDate.h"
#include "platform/formats/XmlPropertyListBounds.h"
#include "platform/value/Text.h"

#include <plist/plist.h>

#include <cstdlib>

#include <algorithm>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::int64_t kEpoch = kPropertyListEpoch * kMicrosecondsPerSecond;

using Node = Owned<void, ::plist_free>;
using Memory = Owned<char, ::free>;

std::optional<Value> valueOf(plist_t node);

std::optional<Value> text(plist_t node) {
    std::uint64_t size = 0;
    const char* start = ::plist_get_string_ptr(node, &size);
    const std::string_view held(start, start != nullptr ? size : 0);
    if (!isUtf8(held)) return std::nullopt;
    return Value(held);
}

Value integer(plist_t node) {
    std::uint64_t number = 0;
    ::plist_get_uint_val(node, &number);
    // libplist does not tell a negative number from one of 64 bits, save by comparing.
    const Node narrow(::plist_new_uint(number));
    if (::plist_compare_node_value(node, narrow.get()) == 0) return Value(number);
    return Value(static_cast<std::int64_t>(number));
}

std::optional<Value> date(plist_t node) {
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
    ::plist_get_date_val(node, &seconds, &microseconds);
    // What libplist's 32 bits cannot hold comes out as one of their ends.
    using Limits = std::numeric_limits<std::int32_t>;
    if (seconds == Limits::min() || seconds == Limits::max()) return std::nullopt;
    const std::int64_t whole = seconds * kMicrosecondsPerSecond;
    return Value(Date{kEpoch + (seconds < 0 ? whole - microseconds : whole + microseconds)});
}

Value data(plist_t node) {
    std::uint64_t size = 0;
    const auto* start = reinterpret_cast<const std::uint8_t*>(::plist_get_data_ptr(node, &size));
    return start != nullptr ? Value(Data(start, start + size)) : Value(Data());
}

std::optional<Value> array(plist_t node) {
    Array elements;
    elements.reserve(::plist_array_get_size(node));
    plist_array_iter position = nullptr;
    ::plist_array_new_iter(node, &position);
    const Memory owned(static_cast<char*>(position));
    plist_t element = nullptr;
    for (::plist_array_next_item(node, position, &element); element != nullptr;
         ::plist_array_next_item(node, position, &element)) {
        auto value = valueOf(element);
        if (!value) return std::nullopt;
        elements.push_back(std::move(*value));
    }
    return Value(std::move(elements));
}

std::optional<Value> dictionary(plist_t node) {
    std::vector<Dictionary::Entry> entries;
    entries.reserve(::plist_dict_get_size(node));
    plist_dict_iter position = nullptr;
    ::plist_dict_new_iter(node, &position);
    const Memory owned(static_cast<char*>(position));
    for (;;) {
        char* name = nullptr;
        plist_t held = nullptr;
        ::plist_dict_next_item(node, position, &name, &held);
        const Memory key(name);
        if (held == nullptr) break;
        auto value = valueOf(held);
        if (!value || !key || !isUtf8(key.get())) return std::nullopt;
        entries.push_back({key.get(), std::move(*value)});
    }
    return Value(Dictionary::fromEntries(std::move(entries)));
}

std::optional<Value> valueOf(plist_t node) {
    switch (::plist_get_node_type(node)) {
        case PLIST_STRING:
            return text(node);
        case PLIST_BOOLEAN: {
            std::uint8_t flag = 0;
            ::plist_get_bool_val(node, &flag);
            return Value(flag != 0);
        }
        case PLIST_UINT:
            return integer(node);
        case PLIST_REAL: {
            double number = 0;
            ::plist_get_real_val(node, &number);
            return Value(number);
        }
        case PLIST_DATE:
            return date(node);
        case PLIST_DATA:
            return data(node);
        case PLIST_ARRAY:
            return array(node);
        case PLIST_DICT:
            return dictionary(node);
        default:
            return std::nullopt;
    }
}

/// Whether XML 1.0 can hold the text; libplist would cut it off at a NUL and write the rest as it is.
bool isXmlText(const std::string& text) {
    const auto allowed = [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r';
    };
    return isUtf8(text) && std::all_of(text.begin(), text.end(), allowed);
}

Node nodeOf(const Value& value);

Node unsignedNode(std::uint64_t number) {
    if (number <= std::numeric_limits<std::int64_t>::max()) return Node(::plist_new_uint(number));
    // plist_new_uint makes a negative number of it; the parser does not.
    const std::string xml = fmt::format("<plist><integer>{}</integer></plist>", number);
    plist_t node = nullptr;
    ::plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
    return Node(node);
}

Node dateNode(Date date) {
    const std::int64_t since = date.microseconds - kEpoch;
    std::int64_t seconds = since / kMicrosecondsPerSecond;
    std::int64_t rest = since % kMicrosecondsPerSecond;
    using Limits = std::numeric_limits<std::int32_t>;
    if (seconds <= Limits::min() || seconds >= Limits::max()) return nullptr;
    return Node(::plist_new_date(static_cast<std::int32_t>(seconds), static_cast<std::int32_t>(rest)));
}

Node arrayNode(const Array& array) {
    Node result(::plist_new_array());
    for (const Value& element : array) {
        Node node = nodeOf(element);
        if (!node) return nullptr;
        ::plist_array_append_item(result.get(), node.release());
    }
    return result;
}

Node dictionaryNode(const Dictionary& dictionary) {
    Node result(::plist_new_dict());
    for (const auto& [key, value] : dictionary) {
        Node node = nodeOf(value);
        if (!node || !isXmlText(key)) return nullptr;
        ::plist_dict_set_item(result.get(), key.c_str(), node.release());
    }
    return result;
}

/// Null for what an XML property list cannot hold.
Node nodeOf(const Value& value) {
    return value.visit([](const auto& held) -> Node {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string>)
            return Node(isXmlText(held) ? ::plist_new_string(held.c_str()) : nullptr);
        else if constexpr (std::is_same_v<Held, bool>)
            return Node(::plist_new_bool(held ? 1 : 0));
        else if constexpr (std::is_same_v<Held, std::int64_t>)
            return Node(::plist_new_uint(static_cast<std::uint64_t>(held)));
        else if constexpr (std::is_same_v<Held, std::uint64_t>)
            return unsignedNode(held);
        else if constexpr (std::is_same_v<Held, double>)
            return Node(::plist_new_real(held));
        else if constexpr (std::is_same_v<Held, Date>)
            return dateNode(held);
        else if constexpr (std::is_same_v<Held, Data>)
            return Node(::plist_new_data(reinterpret_cast<const char*>(held.data()), held.size()));
        else if constexpr (std::is_same_v<Held, Array>)
            return arrayNode(held);
        else
            return dictionaryNode(held);
    });
}

}  // namespace

Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (text.starts_with("bplist")) return parseBinaryPropertyList(bytes);
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max())
        return failure("the property list is larger than 4 GiB");
    if (auto bounded = outOfXmlBounds(text); !bounded)
        return failure("the property list " + bounded.error().message);
    plist_t parsed = nullptr;
    ::plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &parsed);
    const Node root(parsed);
    if (!root) return failure("the bytes are no property list");
    auto value = valueOf(root.get());
    if (!value) return failure("the property list holds a text that is not UTF-8 or a date out of range");
    return std::move(*value);
}

std::optional<Data> xmlPropertyList(const Value& value) {
    const Node node = nodeOf(value);
    if (!node) return std::nullopt;
    char* start = nullptr;
    std::uint32_t size = 0;
    ::plist_to_xml(node.get(), &start, &size);
    const Memory owned(start);
    if (start == nullptr) return std::nullopt;
    return Data(start, start + size);
}

std::optional<Data> binaryPropertyList(const Value& value) {
    BinaryPropertyListWriter list;
    const auto root = list.addValue(value);
    if (!root) return std::nullopt;
    return list.finish(*root);
}

}  // namespace quorvane::platform

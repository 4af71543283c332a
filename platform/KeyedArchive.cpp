#include "platform/KeyedArchive.h"

#include "platform/PropertyListNode.h"
#include "platform/Text.h"

#include <plist/plist.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace quorvane::platform {

namespace {

constexpr std::uint64_t kVersion = 100'000;
/// Archives count seconds since 2001.
constexpr double kEpochSeconds = 978'307'200;

using Node = PropertyListNode;
/// An object's number; nothing for what an archive cannot hold.
using Reference = std::optional<std::uint64_t>;

double archiveTime(Date date) {
    return static_cast<double>(date.microseconds) / 1e6 - kEpochSeconds;
}

/// Collects the objects. The nodes under construction belong to the list of objects already.
class Archiver {
  public:
    Archiver() { append(Node(::plist_new_string("$null"))); }

    std::optional<Data> archive(const Array& root) {
        const Reference reference = add(root);
        if (!reference) return std::nullopt;
        const Node archive(::plist_new_dict());
        plist_t top = ::plist_new_dict();
        ::plist_dict_set_item(top, "root", ::plist_new_uid(*reference));
        ::plist_dict_set_item(archive.get(), "$archiver", ::plist_new_string("KeyedArchiver"));
        ::plist_dict_set_item(archive.get(), "$version", ::plist_new_uint(kVersion));
        ::plist_dict_set_item(archive.get(), "$top", top);
        ::plist_dict_set_item(archive.get(), "$objects", _objects.release());
        return writtenNode(archive.get(), ::plist_to_bin);
    }

  private:
    std::uint64_t append(Node object) {
        ::plist_array_append_item(_objects.get(), object.release());
        return _count++;
    }

    Reference add(const Value& value) {
        return value.visit([this](const auto& held) { return add(held); });
    }

    Reference add(bool flag) { return append(Node(::plist_new_bool(flag ? 1 : 0))); }
    Reference add(std::int64_t number) { return append(signedNode(number)); }
    Reference add(std::uint64_t number) { return append(unsignedNode(number)); }
    Reference add(double number) { return append(Node(::plist_new_real(number))); }
    Reference add(const Data& data) { return append(dataNode(data)); }

    Reference add(const std::string& text) {
        const auto known = _texts.find(text);
        if (known != _texts.end()) return known->second;
        if (!isUtf8(text) || text.find('\0') != std::string::npos) return std::nullopt;
        return _texts[text] = append(Node(::plist_new_string(text.c_str())));
    }

    Reference add(Date date) {
        const auto [object, reference] = appendObject("Date");
        ::plist_dict_set_item(object, "time", ::plist_new_real(archiveTime(date)));
        return reference;
    }

    Reference add(const Array& array) {
        const auto [object, reference] = appendObject("Array");
        plist_t objects = setArray(object, "objects");
        for (const Value& element : array)
            if (!appendReference(objects, add(element))) return std::nullopt;
        return reference;
    }

    Reference add(const Dictionary& dictionary) {
        const auto [object, reference] = appendObject("Dictionary");
        plist_t keys = setArray(object, "keys");
        plist_t objects = setArray(object, "objects");
        for (const auto& [key, value] : dictionary)
            if (!appendReference(keys, add(key)) || !appendReference(objects, add(value)))
                return std::nullopt;
        return reference;
    }

    struct Object {
        plist_t node;
        std::uint64_t reference;
    };

    Object appendObject(const char* className) {
        plist_t node = ::plist_new_dict();
        const std::uint64_t reference = append(Node(node));
        ::plist_dict_set_item(node, "$class", ::plist_new_uid(classReference(className)));
        return {node, reference};
    }

    std::uint64_t classReference(const char* name) {
        const auto known = _classes.find(name);
        if (known != _classes.end()) return known->second;
        plist_t node = ::plist_new_dict();
        ::plist_dict_set_item(node, "$classname", ::plist_new_string(name));
        plist_t classes = setArray(node, "$classes");
        ::plist_array_append_item(classes, ::plist_new_string(name));
        ::plist_array_append_item(classes, ::plist_new_string("Object"));
        return _classes[name] = append(Node(node));
    }

    static plist_t setArray(plist_t object, const char* key) {
        plist_t array = ::plist_new_array();
        ::plist_dict_set_item(object, key, array);
        return array;
    }

    static bool appendReference(plist_t array, const Reference& reference) {
        if (reference) ::plist_array_append_item(array, ::plist_new_uid(*reference));
        return reference.has_value();
    }

    Node _objects{::plist_new_array()};
    std::uint64_t _count = 0;
    /// The texts stand in the archived value.
    std::unordered_map<std::string_view, std::uint64_t> _texts;
    std::unordered_map<std::string_view, std::uint64_t> _classes;
};

}  // namespace

std::optional<Data> keyedArchive(const Array& root) {
    return Archiver().archive(root);
}

}  // namespace quorvane::platform

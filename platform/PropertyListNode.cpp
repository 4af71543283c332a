#include "platform/PropertyListNode.h"

#include <limits>
#include <string>

#include <fmt/format.h>

namespace quorvane::platform {

PropertyListNode signedNode(std::int64_t number) {
    return PropertyListNode(::plist_new_uint(static_cast<std::uint64_t>(number)));
}

PropertyListNode unsignedNode(std::uint64_t number) {
    if (number <= std::numeric_limits<std::int64_t>::max()) return PropertyListNode(::plist_new_uint(number));
    // plist_new_uint makes a negative number of it; the parser does not.
    const std::string xml = fmt::format("<plist><integer>{}</integer></plist>", number);
    plist_t node = nullptr;
    ::plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
    return PropertyListNode(node);
}

PropertyListNode dataNode(const Data& data) {
    return PropertyListNode(::plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
}

std::optional<Data> writtenNode(plist_t node, void (*write)(plist_t, char**, std::uint32_t*)) {
    char* start = nullptr;
    std::uint32_t size = 0;
    write(node, &start, &size);
    const PropertyListMemory owned(start);
    if (start == nullptr) return std::nullopt;
    return Data(start, start + size);
}

}  // namespace quorvane::platform

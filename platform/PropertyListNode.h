#pragma once

#include "platform/Value.h"

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>

namespace quorvane::platform {

/// libplist's nodes, as the writers of property lists need them. Included by them alone.

struct FreePropertyListNode {
    void operator()(void* node) const { ::plist_free(node); }
};
using PropertyListNode = std::unique_ptr<void, FreePropertyListNode>;

struct FreePropertyListMemory {
    void operator()(char* memory) const { std::free(memory); }
};
using PropertyListMemory = std::unique_ptr<char, FreePropertyListMemory>;

PropertyListNode signedNode(std::int64_t number);
PropertyListNode unsignedNode(std::uint64_t number);
PropertyListNode dataNode(const Data& data);

/// The bytes that libplist's function (plist_to_bin, plist_to_xml) makes of the node; nothing when it fails.
std::optional<Data> writtenNode(plist_t node, void (*write)(plist_t, char**, std::uint32_t*));

}  // namespace quorvane::platform

#include "platform/formats/PropertyList.h"

#include "platform/formats/BinaryPropertyList.h"
#include "platform/formats/BinaryPropertyListWriter.h"
#include "platform/formats/XmlPropertyList.h"
#include "platform/value/Bytes.h"

#include <string_view>

namespace quorvane::platform {

Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes) {
    const std::string_view text = textOf(bytes);
    return text.starts_with("bplist") ? parseBinaryPropertyList(bytes) : parseXmlPropertyList(text);
}

std::optional<Data> binaryPropertyList(const Value& value) {
    BinaryPropertyListWriter list;
    const auto root = list.addValue(value);
    if (!root) return std::nullopt;
    return list.finish(*root);
}

}  // namespace quorvane::platform

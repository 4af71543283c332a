#pragma once

#include "platform/base/Result.h"
#include "platform/value/Value.h"

#include <string_view>

namespace quorvane::platform {

/// Parses an XML property list, in time that grows with its size. It is read as UTF-8, whatever encoding it
/// declares. A document type with declarations of its own and an entity beyond the five of XML are an error:
/// nested entities make gigabytes of a few hundred bytes.
Result<Value> parseXmlPropertyList(std::string_view text);

}  // namespace quorvane::platform

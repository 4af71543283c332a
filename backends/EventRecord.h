#pragma once

#include "platform/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// The code that records and posts carry for a client type.
std::string_view senderCode(std::int32_t clientType);

/// Lays record keys over a copy of the payload in one pass, each in place of a payload entry of the same
/// name.
class EventRecordBuilder {
  public:
    /// Room for the payload and so many keys more. The payload may be null.
    EventRecordBuilder(const Dictionary* payload, std::size_t furtherKeys);

    /// Keys must come in ascending order.
    void add(std::string_view key, Value value);
    void addIfPresent(std::string_view key, const std::optional<std::string>& text);

    Dictionary finish();

  private:
    Dictionary _record;
    Dictionary::const_iterator _next = nullptr;
    Dictionary::const_iterator _end = nullptr;
};

}  // namespace quorvane

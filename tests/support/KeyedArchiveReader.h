#pragma once

#include <string>
#include <string_view>

namespace quorvane::test {

/// What Python's property-list reader finds in a keyed archive, following the references from its top, as
/// JSON on one line with sorted keys: data as {"data": "hex"}, dates as {"date": seconds since 1970}. For
/// what is no keyed archive, the text starts with "Traceback".
std::string archivedJson(std::string_view archive);

}  // namespace quorvane::test

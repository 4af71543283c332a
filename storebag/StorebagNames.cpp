#include "storebag/StorebagNames.h"

#include <array>
#include <string_view>

namespace quorvane {

namespace {

constexpr std::int32_t kFirstNamedType = 5;
/// Type 11 is configured from the bag of type 7.
constexpr std::array<std::string_view, 7> kNames{"pelmark",  "stremcore", "confluxa", "vistabox",
                                                 "tunewave", "hintry",    "confluxa"};
constexpr std::int32_t kLastNamedType = kFirstNamedType + static_cast<std::int32_t>(kNames.size()) - 1;

}  // namespace

std::optional<std::string> storebagNameForClientType(std::int32_t clientType) {
    if (clientType < kFirstNamedType || clientType > kLastNamedType) return std::nullopt;
    return std::string(kNames.at(static_cast<std::size_t>(clientType - kFirstNamedType)));
}

}  // namespace quorvane

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvane::platform {

inline std::string repeated(std::string_view text, int count) {
    std::string result;
    for (int i = 0; i < count; ++i) result += text;
    return result;
}

}  // namespace quorvane::platform

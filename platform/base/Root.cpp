#include "platform/base/Root.h"

#include <cstdlib>

namespace quorvane::platform {

std::string rooted(std::string_view absolutePath) {
    static const std::string root = [] {
        const char* value = std::getenv("QUORVANE_ROOT");
        std::string text = value != nullptr ? value : "";
        while (!text.empty() && text.back() == '/') text.pop_back();
        return text;
    }();
    return root + std::string(absolutePath);
}

}  // namespace quorvane::platform

#include "platform/base/FreedMemory.h"

#include <utility>

namespace quorvane::platform {

namespace {

std::function<void()>& memoryListener() {
    static auto* const listener = new std::function<void()>;
    return *listener;
}

}  // namespace

void memoryIsFreed() {
    if (const auto& listener = memoryListener()) listener();
}

void setMemoryListener(std::function<void()> listener) {
    memoryListener() = std::move(listener);
}

}  // namespace quorvane::platform

#pragma once

#include <chrono>
#include <thread>

namespace quorvane::test {

/// Waits until the condition holds; whether it does in time.
template <typename Condition>
bool within(std::chrono::milliseconds limit, Condition&& condition) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace quorvane::test

#pragma once

#include <quorvane/Result.h>
#include <quorvane/quorvane.h>

#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// How what C++ functions return and throw goes out through the C interface.

namespace quorvane::client {

int codeOf(ErrorCode code) noexcept;

/// A copy for the caller, from malloc(3); null without memory.
char* textOf(const char* text) noexcept;

// The same, but they throw std::bad_alloc. Null for nothing, and nothing is done without a place to put it.
void handOut(const std::optional<std::string>& text, char** to);
void handOut(const std::optional<std::vector<std::string>>& names, char*** to);
inline void handOut(bool flag, bool* to) {
    if (to != nullptr) *to = flag;
}

/// Runs a function that returns a code. Nothing is thrown past it.
template <typename Function>
int guarded(Function&& function, char** message = nullptr) noexcept {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return QUORVANE_NO_MEMORY;
    } catch (const std::length_error&) {
        return QUORVANE_NO_MEMORY;  // More than a container could ever hold.
    } catch (const std::exception& exception) {
        if (message != nullptr) *message = textOf(exception.what());
        return QUORVANE_SYSTEM;
    }
}

/// Runs a function that returns a Status; its error's text becomes the message.
template <typename Function>
int telling(char** message, Function&& function) noexcept {
    if (message != nullptr) *message = nullptr;
    const auto run = [&]() -> int {
        const Status status = function();
        if (status) return QUORVANE_OK;
        if (message != nullptr) *message = textOf(status.error().message.c_str());
        return codeOf(status.error().code);
    };
    return guarded(run, message);
}

inline Error nullArgument() {
    return {ErrorCode::InvalidArgument, "an argument is NULL"};
}

/// An object for the caller; null without memory.
template <typename T>
T* newOrNull() noexcept {
    try {
        return new T;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace quorvane::client

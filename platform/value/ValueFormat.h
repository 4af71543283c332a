#pragma once

#include "platform/value/Value.h"

#include <fmt/core.h>

#include <string_view>

/// Values, dictionaries and arrays as arguments of fmt and of log lines: their description(), made only when
/// formatted.

template <>
struct fmt::formatter<quorvane::platform::Value> : fmt::formatter<std::string_view> {
    template <typename Context>
    auto format(const quorvane::platform::Value& value, Context& context) const {
        return fmt::formatter<std::string_view>::format(value.description(), context);
    }
};

template <>
struct fmt::formatter<quorvane::platform::Dictionary> : fmt::formatter<std::string_view> {
    template <typename Context>
    auto format(const quorvane::platform::Dictionary& dictionary, Context& context) const {
        return fmt::formatter<std::string_view>::format(dictionary.description(), context);
    }
};

template <>
struct fmt::formatter<quorvane::platform::Array> : fmt::formatter<std::string_view> {
    template <typename Context>
    auto format(const quorvane::platform::Array& array, Context& context) const {
        return fmt::formatter<std::string_view>::format(quorvane::platform::description(array), context);
    }
};

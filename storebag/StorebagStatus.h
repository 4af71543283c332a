#pragma once

#include "platform/base/Clock.h"

#include <optional>
#include <string>
#include <string_view>

namespace quorvane {

/// One attempt to fetch a storebag, and how it ended.
struct FetchAttempt {
    enum class Outcome { Received, Unchanged, BuiltIn, Failed };

    platform::TimeValue time;  ///< when it began
    std::string url;
    int httpStatus = 0;                     ///< 0 when no answer came
    std::optional<std::string> serverTime;  ///< the answer's "Date"
    Outcome outcome = Outcome::Failed;
    std::string reason;  ///< why it failed, or why a built-in bag stands in; else empty
};

/// How things stand with one storebag.
struct StorebagStatus {
    std::string name;
    std::optional<std::string> version;            ///< of the section in use
    std::optional<platform::TimeValue> confirmed;  ///< when the server last gave it or said that it holds
    FetchAttempt attempt;                          ///< the last one
    platform::TimeValue nextAttempt;               ///< the first session from then on makes one
};

}  // namespace quorvane

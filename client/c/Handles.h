#pragma once

#include <quorvane/Client.h>
#include <quorvane/Reporter.h>
#include <quorvane/Session.h>
#include <quorvane/quorvane.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What the handles of the C interface lead to.

struct QuorvaneDictionary {
    quorvane::Dictionary held;
};

struct QuorvaneArray {
    quorvane::Array held;
};

struct QuorvaneSessionInfo {
    quorvane::SessionInfo held;
    std::vector<std::string> frameworks;
};

struct QuorvaneUserInfo {
    quorvane::UserInfo held;
};

struct QuorvaneReporterOptions {
    quorvane::ReporterOptions held;
};

struct QuorvaneReporter {
    quorvane::Reporter held;
};

struct QuorvaneClientOptions {
    quorvane::ConnectOptions held;
};

struct QuorvaneClient {
    quorvane::Client held;
};

namespace quorvane::client {

inline Timeout timeoutOf(std::int64_t milliseconds, Timeout usual) {
    if (milliseconds == QUORVANE_DEFAULT_TIMEOUT) return usual;
    return milliseconds < 0 ? kNoTimeout : Timeout(milliseconds);
}

inline const Dictionary* payloadOf(const QuorvaneDictionary* payload) {
    return payload != nullptr ? &payload->held : nullptr;
}

inline std::optional<UserInfo> userInfoOf(const QuorvaneUserInfo* info) {
    if (info == nullptr) return std::nullopt;
    return info->held;
}

}  // namespace quorvane::client

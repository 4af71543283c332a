#pragma once

#include "client/EventView.h"

#include <quorvane/Session.h>

#include <systemd/sd-bus.h>

#include <cstdint>
#include <optional>
#include <string>

namespace quorvane::client {

// How the public types are written as D-Bus values.

Dictionary sessionInfoDictionary(const SessionInfo& sessionInfo);
SessionInfo sessionInfoFromDictionary(const Dictionary& dictionary);
std::optional<Dictionary> userInfoDictionary(const std::optional<UserInfo>& userInfo);

/// "file://" and the path, percent-encoded (RFC 8089, RFC 3986 section 2). The path is absolute.
std::string fileURL(const std::string& path);

/// Appends the message dictionary of an event.
int appendMessage(sd_bus_message* message, const EventView& event);
/// Appends category, type and payload.
int appendEvent(sd_bus_message* message, const Event& event);

inline const Dictionary* orNull(const std::optional<Dictionary>& dictionary) {
    return dictionary ? &*dictionary : nullptr;
}

}  // namespace quorvane::client

#include "service/GroupSharing.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/device/UserDefaults.h"
#include "util/DeviceFacts.h"

#include <optional>
#include <sstream>
#include <string>

namespace quorvane {

namespace {

constexpr const char* kKey = "share_groups_between_users";

/// Also stands for users of other namespaces, so it is nobody's own and no service's.
constexpr uid_t kNobody = 65534;

GroupSharing::Users sharingUsers() {
    const auto set = platform::userDefaultString(kQuorvaneDefaultsSuite, kKey);
    if (!set || *set == "system") return GroupSharing::Users::System;
    if (*set == "all") return GroupSharing::Users::All;
    if (*set == "none") return GroupSharing::Users::None;
    platform::logError("readConfiguration: {}: {}: system, all or none is expected",
                       platform::rooted("/etc/quorvane/defaults/com.velmora.quorvane.toml"), kKey);
    return GroupSharing::Users::System;
}

/// SYS_UID_MAX of login.defs(5).
std::optional<uid_t> lastSystemUser() {
    const auto file = platform::readFile(platform::rooted("/etc/login.defs"), 1u << 20);
    if (!file) return std::nullopt;
    std::istringstream lines(std::string(file->begin(), file->end()));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        uid_t number = 0;
        if (words >> name && name == "SYS_UID_MAX" && words >> number) return number;
    }
    return std::nullopt;
}

}  // namespace

GroupSharing GroupSharing::fromDefaults() {
    return {sharingUsers(), lastSystemUser().value_or(GroupSharing()._lastSystemUser)};
}

uid_t GroupSharing::circleOf(uid_t user) const {
    constexpr uid_t root = 0;
    switch (_users) {
        case Users::All:
            return root;
        case Users::System:
            return user <= _lastSystemUser && user != kNobody ? root : user;
        case Users::None:
            return user;
    }
    return user;
}

}  // namespace quorvane

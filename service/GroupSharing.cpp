#include "service/GroupSharing.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/device/UserDefaults.h"
#include "util/Settings.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>

namespace quorvane {

namespace {

/// Also stands for users of other namespaces, so it is nobody's own and no service's.
constexpr uid_t kNobody = 65534;

GroupSharing::Users sharingUsers() {
    const SettingRule& rule = ruleOf(Setting::GroupSharing);
    const auto set = textSetting(Setting::GroupSharing);
    if (!set) return GroupSharing::Users::System;
    const auto word = std::ranges::find(rule.words, *set);
    if (word != rule.words.end()) return static_cast<GroupSharing::Users>(word - rule.words.begin());
    platform::logError("readConfiguration: {}: {}: system, all or none is expected",
                       platform::userDefaultsFile(suiteOf(Setting::GroupSharing)), rule.key);
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

#include "util/Settings.h"

#include "platform/device/UserDefaults.h"

#include <array>
#include <cstddef>

namespace quorvane {

namespace {

using Form = SettingRule::Form;

/// In the order of GroupSharing::Users.
constexpr std::array<std::string_view, 3> kSharingUsers{"system", "all", "none"};

/// In the order of Setting: those of the daemon's own suite, then the time service's.
constexpr std::array<SettingRule, 11> kRules{{
    {"quorvane_storebag_url", Form::URL},
    {"environmentType", Form::Number, 1, 4},
    {"httpsPostURL", Form::URL},
    {"httpsRealtimePostURL", Form::URL},
    {"connections_per_user", Form::Number},
    {"connections", Form::Number},
    {"megabytes_per_user", Form::Number},
    {"megabytes", Form::Number},
    {.key = "share_groups_between_users", .form = Form::Word, .words = kSharingUsers},
    {"message_log_bytes", Form::Number},
    {"TMAutomaticTimeZoneEnabled", Form::Boolean},
}};
constexpr auto kOwnRules = static_cast<std::size_t>(Setting::AutomaticTimeZone);

constexpr std::array<std::string_view, 2> kSuites{"com.velmora.quorvane", "com.velmora.timed"};

}  // namespace

std::span<const SettingRule> settingRules(std::string_view suite) {
    const std::span<const SettingRule> all(kRules);
    if (suite == kSuites[0]) return all.first(kOwnRules);
    return suite == kSuites[1] ? all.subspan(kOwnRules) : std::span<const SettingRule>();
}

std::span<const std::string_view> settingSuites() {
    return kSuites;
}

const SettingRule& ruleOf(Setting setting) {
    return kRules.at(static_cast<std::size_t>(setting));
}

std::string_view suiteOf(Setting setting) {
    return kSuites[static_cast<std::size_t>(setting) < kOwnRules ? 0 : 1];
}

std::optional<Value> settingValue(Setting setting) {
    return platform::userDefault(suiteOf(setting), ruleOf(setting).key);
}

std::optional<std::string> textSetting(Setting setting) {
    return platform::userDefaultString(suiteOf(setting), ruleOf(setting).key);
}

std::optional<std::int64_t> integerSetting(Setting setting) {
    return platform::userDefaultInteger(suiteOf(setting), ruleOf(setting).key);
}

std::optional<bool> booleanSetting(Setting setting) {
    return platform::userDefaultBoolean(suiteOf(setting), ruleOf(setting).key);
}

}  // namespace quorvane

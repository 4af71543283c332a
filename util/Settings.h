#pragma once

#include "platform/value/Value.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvane {

/// The user defaults that the daemon reads. There is no other way to them, so that whoever checks their files
/// knows them all.
enum class Setting {
    StorebagURL,
    Environment,
    PostURL,
    RealtimePostURL,
    ConnectionsPerUser,
    Connections,
    MegabytesPerUser,
    Megabytes,
    GroupSharing,
    MessageLogBytes,
    AutomaticTimeZone,
};

/// What may stand under a key of a configuration file.
struct SettingRule {
    enum class Form { Text, URL, Word, Number, Boolean };

    std::string_view key;
    Form form = Form::Text;
    std::int64_t first = 1;  ///< Of a number.
    std::int64_t last = std::numeric_limits<std::int64_t>::max();
    std::span<const std::string_view> words = {};  ///< The ones there are.
};

/// The rules of the settings that are kept in the suite's file; none for a suite that the daemon does not
/// read.
std::span<const SettingRule> settingRules(std::string_view suite);
/// The suites that the daemon reads.
std::span<const std::string_view> settingSuites();

const SettingRule& ruleOf(Setting setting);
std::string_view suiteOf(Setting setting);

/// What is stored now, read afresh; nothing where nothing is. Of another form than asked for, it is logged
/// and reads as nothing, 0 or false. Thread-safe.
std::optional<Value> settingValue(Setting setting);
std::optional<std::string> textSetting(Setting setting);
std::optional<std::int64_t> integerSetting(Setting setting);
std::optional<bool> booleanSetting(Setting setting);

}  // namespace quorvane

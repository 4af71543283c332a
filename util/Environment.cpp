#include "util/Environment.h"

#include "platform/base/Log.h"
#include "platform/base/SettledOnce.h"
#include "util/DeviceFacts.h"
#include "util/Settings.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>

namespace quorvane {

namespace {

std::uint32_t environmentNumber() {
    const auto stored = integerSetting(Setting::Environment);
    if (!stored)
        return static_cast<std::uint32_t>(isInternalBuild() ? EnvironmentType::Internal
                                                            : EnvironmentType::Release);
    const std::int64_t number = *stored;
    if (number >= 0 && number <= std::ssize(kStorebagSections)) return static_cast<std::uint32_t>(number);
    constexpr std::int64_t largest = std::numeric_limits<std::uint32_t>::max();
    platform::logError("userDefaultsEnvironment: Invalid environment type {}",
                       static_cast<std::uint32_t>(std::min(number, largest)));
    return static_cast<std::uint32_t>(EnvironmentType::Internal);
}

platform::SettledOnce<EnvironmentType> inForce(userDefaultsEnvironment);

}  // namespace

EnvironmentType environmentType() {
    return inForce.value();
}

EnvironmentType userDefaultsEnvironment() {
    const std::uint32_t number = environmentNumber();
    platform::logInfo("userDefaultsEnvironment: Environment type {}", number);
    return static_cast<EnvironmentType>(number);
}

std::string_view environmentSectionKey(EnvironmentType type) {
    return type == EnvironmentType::None ? std::string_view()
                                         : kStorebagSections.at(static_cast<std::size_t>(type) - 1);
}

void replaceEnvironmentType(EnvironmentType type) {
    inForce.replaceForTest(type);
}

}  // namespace quorvane

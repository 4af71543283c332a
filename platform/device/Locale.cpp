#include "platform/device/Locale.h"

#include "platform/base/Clock.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace quorvane::platform {

namespace {

/// What the first variable that is set, and not empty, names: locale(7).
std::string_view messagesLocale() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (const char* value = std::getenv(name); value != nullptr && *value != '\0') return value;
    return {};
}

}  // namespace

std::optional<std::string> currentCountryCode() {
    std::string_view locale = messagesLocale();
    locale = locale.substr(0, locale.find_first_of(".@"));
    const auto underscore = locale.find('_');
    if (underscore == std::string_view::npos || underscore + 1 == locale.size()) return std::nullopt;
    return std::string(locale.substr(underscore + 1));
}

long timeZoneOffset() {
    const auto now = static_cast<std::time_t>(timeOfDay().seconds);
    // localtime_r does not read a changed /etc/localtime; tzset does, for a system call, so once a second.
    static std::atomic<std::time_t> lastLook = -1;
    if (lastLook.exchange(now, std::memory_order_relaxed) != now) ::tzset();
    std::tm local{};
    return ::localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0;
}

}  // namespace quorvane::platform

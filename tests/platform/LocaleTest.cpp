#include "platform/device/Locale.h"

#include "platform/base/Clock.h"

#include <cstdlib>

namespace quorvane::platform {
namespace {

std::optional<std::string> countryOf(const char* all, const char* messages, const char* language) {
    ::setenv("LC_ALL", all, 1);
    ::setenv("LC_MESSAGES", messages, 1);
    ::setenv("LANG", language, 1);
    return currentCountryCode();
}

TEST(LocaleTest, TheCountryIsTheTerritoryOfTheFirstLocaleThatIsSet) {
    EXPECT_EQ(countryOf("en_US.UTF-8", "de_DE", "fr_FR"), "US");
    EXPECT_EQ(countryOf("", "de_AT@euro", "fr_FR"), "AT");
    EXPECT_EQ(countryOf("", "", "fr_FR"), "FR");
    EXPECT_EQ(countryOf("C.UTF-8", "", "fr_FR"), std::nullopt) << "a set locale without territory decides";
    EXPECT_EQ(countryOf("", "", "eo"), std::nullopt);
    EXPECT_EQ(countryOf("", "", "en_.UTF-8"), std::nullopt);
    EXPECT_EQ(countryOf("", "", "eo.X_Y"), std::nullopt) << "the name of the coding holds no territory";
    EXPECT_EQ(countryOf("", "", ""), std::nullopt);
}

TEST(LocaleTest, TheOffsetFollowsTheZoneAndItsSummerTimeWithinASecond) {
    ::setenv("TZ", "AAA3:30BBB,M3.2.0,M11.1.0", 1);
    replaceClock([] { return TimeValue{1'768'500'000, 0}; });  // January 2026
    EXPECT_EQ(timeZoneOffset(), -12'600);
    replaceClock([] { return TimeValue{1'784'100'000, 0}; });  // July 2026
    EXPECT_EQ(timeZoneOffset(), -9'000);
    ::setenv("TZ", "CCC-1", 1);
    replaceClock([] { return TimeValue{1'784'100'001, 0}; });
    EXPECT_EQ(timeZoneOffset(), 3'600);
    replaceClock(nullptr);
}

}  // namespace
}  // namespace quorvane::platform

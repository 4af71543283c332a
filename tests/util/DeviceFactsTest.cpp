#include "util/DeviceFacts.h"

#include "tests/support/RootFixture.h"
#include "util/Conversions.h"
#include "util/Environment.h"

#include <arpa/inet.h>

#include <cmath>
#include <limits>

namespace quorvane {
namespace {

class DeviceFactsTest : public RootFixture {
  protected:
    void device(const std::string& line) const { write("etc/quorvane/device.toml", line); }

    static std::string copied() {
        DeviceIdentifier buffer;
        buffer.fill('#');
        copyDeviceIdentifier(buffer);
        return {buffer.begin(), buffer.end()};
    }
};

TEST_F(DeviceFactsTest, AnIdentifierIsCopiedWholeOrNotAtAll) {
    const std::string forty(40, 'a');
    device("UniqueDeviceID = \"" + forty + "\"");
    EXPECT_EQ(copied(), forty + '\0');
    device("UniqueDeviceID = \"abc\"");
    EXPECT_STREQ(copied().c_str(), "abc");
    EXPECT_EQ(copied().back(), '\0');
    device("UniqueDeviceID = \"" + forty + "a\"");
    EXPECT_EQ(copied(), std::string(41, '#'));
    copyDeviceIdentifier({});
}

TEST_F(DeviceFactsTest, TheUserInfoKeyIsTheTwoNamesInLowerCase) {
    const Dictionary both{{"ClientName", "Foo"}, {"ServiceName", "BÄR"}};
    EXPECT_EQ(userInfoKey(&both), "foo:bär");
    const Dictionary one{{"ClientName", 7}, {"ServiceName", "Bar"}};
    EXPECT_EQ(userInfoKey(&one), ":bar");
    EXPECT_EQ(userInfoKey(nullptr), ":");
}

class EnvironmentTest : public RootFixture {
  protected:
    void setting(const std::string& value) const {
        write("etc/quorvane/defaults/com.velmora.quorvane.toml", "environmentType = " + value + "\n");
    }
};

TEST_F(EnvironmentTest, TheSettingDecidesAndOneOutOfRangeIsInternal) {
    for (unsigned number = 0; number <= 4; ++number) {
        setting(std::to_string(number));
        EXPECT_EQ(userDefaultsEnvironment(), EnvironmentType{number});
        EXPECT_EQ(logged(fmt::format("<6>userDefaultsEnvironment: Environment type {}", number)), 1u);
    }
    for (const auto& [value, printed] :
         {std::pair("5", "5"), std::pair("-2", "4294967294"), std::pair("4294967300", "4294967295")}) {
        setting(value);
        EXPECT_EQ(userDefaultsEnvironment(), EnvironmentType::Internal);
        EXPECT_EQ(logged(fmt::format("<3>userDefaultsEnvironment: Invalid environment type {}", printed)),
                  1u);
    }
}

TEST_F(EnvironmentTest, WithoutASettingItIsThatOfTheBuildAndBothAreSettledOnFirstUse) {
    for (const char* type : {"internal", "Internal"}) {
        write("etc/quorvane/device.toml", fmt::format("ReleaseType = \"{}\"\n", type));
        EXPECT_FALSE(isInternalBuild()) << type;
        EXPECT_EQ(userDefaultsEnvironment(), EnvironmentType::Release);
    }
    platform::settleAnewForTest();
    EXPECT_TRUE(isInternalBuild());
    EXPECT_EQ(userDefaultsEnvironment(), EnvironmentType::Internal);

    forgetLines();
    setting("3");
    EXPECT_EQ(environmentType(), EnvironmentType::Seed);
    setting("1");
    EXPECT_EQ(environmentType(), EnvironmentType::Seed);
    EXPECT_EQ(logged("userDefaultsEnvironment: "), 1u);
}

TEST(ConversionsTest, TimesBecomeSecondsAndMinutesAndWhatIsNotFiniteMinusOne) {
    EXPECT_DOUBLE_EQ(secondsFromTimeValue({130, 500'000}), 130.5);
    EXPECT_DOUBLE_EQ(secondsFromTimeValue({-1, 750'000}), -0.25);
    for (const auto& [seconds, minute] : std::initializer_list<std::pair<std::int64_t, std::int64_t>>{
             {0, 0}, {59, 0}, {60, 60}, {119, 60}, {-1, 0}, {-59, 0}, {-61, -60}})
        EXPECT_EQ(roundDownToMinute(seconds), minute) << seconds;
    EXPECT_EQ(roundDownToMinute(std::numeric_limits<std::int64_t>::min()) % 60, 0);
    EXPECT_EQ(finiteOrMinusOne(-0.5), -0.5);
    for (const double number : {std::nan(""), HUGE_VAL, -HUGE_VAL}) EXPECT_EQ(finiteOrMinusOne(number), -1.0);
}

TEST(ConversionsTest, AnAddressIsADottedQuadOfAtMostSixteenCharacters) {
    const sockaddr_in address = ipv4SocketAddress("192.0.2.17", 4711);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), 4711);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), 0xc0000211u);
    EXPECT_EQ(ntohl(ipv4SocketAddress("255.255.255.254 and more", 1).sin_addr.s_addr), 0xfffffffeu);
    for (const char* bad : {"", "collector.invalid", "1.2.3.4.5", "::1", "256.1.1.1"})
        EXPECT_EQ(ipv4SocketAddress(bad, 1).sin_addr.s_addr, INADDR_NONE) << bad;
}

}  // namespace
}  // namespace quorvane

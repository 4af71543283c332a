#include "util/DeviceFacts.h"

#include "tests/support/RootFixture.h"

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

TEST_F(DeviceFactsTest, EachGetterAsksForItsOwnKey) {
    device(R"(
ProductVersion = "12.4"
BuildVersion = "24E214"
ProductType = "Quorum12,1"
DeviceName = "Reception"
HWModelStr = "Q12AP"
SerialNumber = "QV01"
)");
    EXPECT_EQ(productVersion(), "12.4");
    EXPECT_EQ(buildVersion(), "24E214");
    EXPECT_EQ(productType(), "Quorum12,1");
    EXPECT_EQ(deviceName(), "Reception");
    EXPECT_EQ(hardwareModel(), "Q12AP");
    EXPECT_EQ(serialNumber(), "QV01");
}

TEST_F(DeviceFactsTest, OnlyTheExactWordMarksAnInternalBuild) {
    device("ReleaseType = \"internal\"");
    EXPECT_FALSE(isInternalBuild());
    device("ReleaseType = \"Internal\"");
    EXPECT_FALSE(isInternalBuild()) << "settled on first use";
}

TEST_F(DeviceFactsTest, InternalBuildsAreRecognised) {
    device("ReleaseType = \"Internal\"");
    EXPECT_TRUE(isInternalBuild());
}

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

}  // namespace
}  // namespace quorvane

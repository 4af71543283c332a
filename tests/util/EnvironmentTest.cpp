#include "util/Environment.h"

#include "tests/support/RootFixture.h"

#include <thread>

namespace quorvane {
namespace {

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

TEST_F(EnvironmentTest, WithoutASettingTheBuildDecides) {
    EXPECT_EQ(userDefaultsEnvironment(), EnvironmentType::Release);
}

TEST_F(EnvironmentTest, WithoutASettingAnInternalBuildIsInternal) {
    write("etc/quorvane/device.toml", "ReleaseType = \"Internal\"\n");
    EXPECT_EQ(userDefaultsEnvironment(), EnvironmentType::Internal);
}

TEST_F(EnvironmentTest, IsSettledOnceForAllReaders) {
    setting("3");
    {
        std::vector<std::jthread> readers;
        for (int i = 0; i < 4; ++i)
            readers.emplace_back([] { EXPECT_EQ(environmentType(), EnvironmentType::Seed); });
    }
    setting("1");
    EXPECT_EQ(environmentType(), EnvironmentType::Seed);
    EXPECT_EQ(logged("userDefaultsEnvironment: "), 1u);
}

}  // namespace
}  // namespace quorvane

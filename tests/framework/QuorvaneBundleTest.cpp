#include "framework/QuorvaneBundle.h"

#include "tests/support/RootFixture.h"

namespace quorvane {
namespace {

class QuorvaneBundleTest : public RootFixture {
  protected:
    const std::string kInfo = "usr/share/quorvane/framework/Info.plist";
    static std::string plist(const std::string& inside) {
        return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)" + inside + "</plist>";
    }
};

TEST_F(QuorvaneBundleTest, TheVersionIsTheOneInTheBundle) {
    EXPECT_EQ(bundleVersion(), std::nullopt) << "no bundle";
    write(kInfo, plist("<dict><key>CFBundleVersion</key><string>8.1</string></dict>"));
    EXPECT_EQ(bundleVersion(), "8.1");
    write(kInfo, plist("<dict><key>CFBundleVersion</key><integer>8</integer></dict>"));
    EXPECT_EQ(bundleVersion(), std::nullopt);
    write(kInfo, plist("<array/>"));
    EXPECT_EQ(bundleVersion(), std::nullopt);
    EXPECT_EQ(logged(""), 0u);
    write(kInfo, "<plist><dict>");
    EXPECT_EQ(bundleVersion(), std::nullopt);
    EXPECT_EQ(logged("Info.plist: "), 1u) << "a malformed file is logged by name";
}

TEST_F(QuorvaneBundleTest, TheKeyIsTheFileAsItStands) {
    EXPECT_EQ(publicKeyResource(), std::nullopt);
    write("usr/share/quorvane/framework/publicKey.der", std::string("\x30\x00\xff", 3));
    EXPECT_EQ(publicKeyResource(), (Data{0x30, 0x00, 0xff}));
}

}  // namespace
}  // namespace quorvane

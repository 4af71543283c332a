#include "backends/QuorvaneBackend.h"

#include "backends/CreateBackends.h"
#include "framework/Keys.h"
#include "tests/backends/BackendFixture.h"

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::Key;

class CountingBackend : public QuorvaneBackend {
  public:
    CountingBackend() : QuorvaneBackend("counting", nullptr, std::nullopt) {}
    using QuorvaneBackend::selfVersion;
    using QuorvaneBackend::selfVersionMajor;
    using QuorvaneBackend::sendMessage;

    Answer sendMessage(const Dictionary*, TimeValue, std::uint16_t, std::uint16_t, EventID eventID,
                       MessageFlag) override {
        lastEventID = static_cast<std::uint16_t>(eventID);
        return std::nullopt;
    }

    std::uint16_t lastEventID = 0;
};

using QuorvaneBackendTest = BackendFixture;

TEST_F(QuorvaneBackendTest, NumbersItsEventsFromOneAndWraps) {
    CountingBackend backend;
    for (int sent = 1; sent <= 65537; ++sent) {
        send(backend, {});
        ASSERT_EQ(backend.lastEventID, sent % 65536);
    }
}

TEST_F(QuorvaneBackendTest, CutsItsVersionToTwoBytes) {
    CountingBackend backend;
    for (const auto& [given, kept] : {std::pair{"7.0", "7.0"},
                                      {"7", "7.0"},
                                      {"10.2.3", "10.2"},
                                      {"300.1", "44.1"},
                                      {"", "0.0"},
                                      {"x.y", "0.0"},
                                      {"99999999999.257", "255.1"}}) {
        backend.setSelfVersion(given);
        EXPECT_EQ(backend.selfVersion(), kept) << given;
    }
    EXPECT_EQ(backend.selfVersionMajor(), 255);
}

TEST_F(QuorvaneBackendTest, HashesAsManyBytesAsTheTextHasUtf16Units) {
    EXPECT_EQ(QuorvaneBackend::convertIntoSHA256("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // "é" is two bytes but one unit: the last byte stays out. A sign outside the basic plane is two units.
    EXPECT_EQ(QuorvaneBackend::convertIntoSHA256("abcd\u00e9"),
              QuorvaneBackend::convertIntoSHA256("abcd\xc3"));
    EXPECT_EQ(QuorvaneBackend::convertIntoSHA256("\U0001F600"),
              QuorvaneBackend::convertIntoSHA256("\xf0\x9f"));
    EXPECT_EQ(QuorvaneBackend::convertIntoSHA256("\xf0").size(), 64u);
}

TEST_F(QuorvaneBackendTest, FactoryRefusesWhatItDoesNotKnow) {
    auto profile = shared({{"clients", Array{}}});
    EXPECT_EQ(QuorvaneBackend::newBackendWithName("HTTPPOST", profile, "Fernlight", 7), nullptr);
    EXPECT_EQ(logged("<3>QuorvaneBackend(newBackendWithName): HTTPPOST"), 1u);

    EXPECT_EQ(QuorvaneBackend::newBackendWithName("httppost", nullptr, "Fernlight", 7), nullptr);
    EXPECT_EQ(QuorvaneBackend::newBackendWithName("httppost", profile, std::nullopt, 7), nullptr);
    EXPECT_EQ(logged("<3>"), 1u);

    auto withoutClients = shared({{"clients", "none"}});
    EXPECT_EQ(QuorvaneBackend::newBackendWithName("httppost", withoutClients, "Fernlight", 7), nullptr);
    EXPECT_EQ(logged("<3>HTTPSPostBackend(initWithName): can't find the client list."), 1u);
}

TEST_F(QuorvaneBackendTest, ASessionGetsABackendPerKnownNameThatIsToldItsFacts) {
    constexpr const char* kIdentifier = "0123456789abcdef";
    write("etc/quorvane/device.toml", R"(
ProductVersion = "9.1"
BuildVersion = "13A5"
ProductType = "Fern3,1"
DeviceName = "Fernlight"
ReleaseType = "Internal"
)");
    const Dictionary profile{{"clients", Array{}}};
    const auto storebag =
        shared({{"httppost", profile}, {"httppost2", profile}, {"nonesuch", profile}, {"other", 7}});
    const Dictionary sessionInfo{{kQuorvaneSessionInfoSessionID.data(), 4'000'000'000u},
                                 {kQuorvaneSessionInfoClientType.data(), 7},
                                 {kQuorvaneSessionInfoClientVersion.data(), 65'537},
                                 {kQuorvaneSessionInfoBatchEvent.data(), true}};
    const auto user = userInfo();
    const auto backends = createBackends(storebag, &sessionInfo, user, kIdentifier);

    ASSERT_TRUE(backends);
    EXPECT_THAT(*backends, ElementsAre(Key("httppost"), Key("httppost2")));
    EXPECT_EQ(logged("<3>QuorvaneBackend(newBackendWithName): "), 2u);
    EXPECT_EQ(logged("<3>createBackends: other: a dictionary is expected in the storebag"), 1u);

    QuorvaneBackend& backend = *backends->at("httppost2");
    EXPECT_EQ(backend.sessionID(), 4'000'000'000u);
    EXPECT_EQ(backend.compType(), 7);
    EXPECT_EQ(backend.clientVersion(), 1);
    EXPECT_STREQ(backend.udid(), kIdentifier);
    EXPECT_EQ(backend.productVersion(), "9.1");
    EXPECT_EQ(backend.buildVersion(), "13A5");
    EXPECT_EQ(backend.hardwareType(), "Fern3,1");
    EXPECT_EQ(backend.productFamily(), "Fernlight");
    EXPECT_TRUE(backend.isInternal());
    EXPECT_FALSE(backend.requireUserInfo());
    EXPECT_TRUE(backend.batchEvents());
    EXPECT_EQ(backend.userInfoDict(), user);
    EXPECT_EQ(storebag.use_count(), 3) << "profiles share the section";
}

}  // namespace
}  // namespace quorvane

#include "backends/ReportingRules.h"
#include "tests/backends/BackendFixture.h"

namespace quorvane {
namespace {

class UpdateBackendStateTest : public BackendFixture {
  protected:
    static BackendState stateFor(const Dictionary& entry, double draw = 0) {
        return personalBackend(entry, userInfo(), draw)->state();
    }

    static Dictionary entryWithout(std::string_view key) {
        Dictionary entry = permissiveEntry();
        entry.remove(key);
        return entry;
    }
};

TEST_F(UpdateBackendStateTest, WithoutRequiredUserInfoNoRuleApplies) {
    write("etc/quorvane/consent.toml", "diagnostics_submission = false\n");
    auto backend = backendWithClients({});
    EXPECT_EQ(backend->state(), BackendState::WaitingForUserInfo);
    backend->updateState();
    EXPECT_EQ(backend->state(), BackendState::Enabled);
}

TEST_F(UpdateBackendStateTest, RequiredUserInfoMustComeAndMatch) {
    auto backend = personalBackend(entryWith("client", "Mail,Maps"));
    for (const auto& [client, state] : {std::pair{"Mail", BackendState::Enabled},
                                        {"mApS", BackendState::Enabled},
                                        {"Mail2", BackendState::Disabled},
                                        {"Mail,Maps", BackendState::Disabled},
                                        {"", BackendState::Disabled}}) {
        backend->setUserInfoDict(userInfo(client));
        EXPECT_EQ(backend->updateBackendState(), state) << client;
    }
    backend->setUserInfoDict(shared({}));
    EXPECT_EQ(backend->updateBackendState(), BackendState::Disabled);
    backend->setUserInfoDict(nullptr);
    EXPECT_EQ(backend->updateBackendState(), BackendState::WaitingForUserInfo);

    EXPECT_EQ(stateFor(entryWith("service", "other, sync")), BackendState::Disabled)
        << "items are not trimmed";
    EXPECT_EQ(stateFor(entryWith("service", "other,yn")), BackendState::Enabled);
    EXPECT_EQ(decideReporting(nullptr, {}).state, BackendState::Disabled) << "no clients";
}

TEST_F(UpdateBackendStateTest, ConsentIsNeededUnlessOverriddenByExactlyOne) {
    EXPECT_EQ(stateFor(permissiveEntry()), BackendState::Enabled);
    write("etc/quorvane/consent.toml", "diagnostics_submission = false\n");
    EXPECT_EQ(stateFor(permissiveEntry()), BackendState::Disabled);
    EXPECT_EQ(stateFor(entryWith("override_dnu", 2)), BackendState::Disabled);
    EXPECT_EQ(logged("<7>HTTPSPostBackend(updateBackendState): reporting disabled by DNU: 2."), 1u);
    EXPECT_EQ(stateFor(entryWith("override_dnu", 1)), BackendState::Enabled);
}

TEST_F(UpdateBackendStateTest, LocaleListIsRequiredAndDeviceListIsNot) {
    EXPECT_EQ(stateFor(entryWithout("locale_whitelist")), BackendState::Disabled);
    EXPECT_EQ(logged("<7>HTTPSPostBackend(updateBackendState): (US) isn't in locale list (null)"), 1u);
    EXPECT_EQ(stateFor(entryWith("locale_whitelist", Array{"DE", "FR"})), BackendState::Disabled);
    EXPECT_EQ(logged("(US) isn't in locale list (DE, FR)"), 1u);

    EXPECT_EQ(stateFor(entryWith("device_whitelist", Array{})), BackendState::Enabled);
    EXPECT_EQ(stateFor(entryWith("device_whitelist", Array{"fern"})), BackendState::Enabled);
    EXPECT_EQ(stateFor(entryWith("device_whitelist", Array{"Moss"})), BackendState::Disabled);
    EXPECT_EQ(logged("(Fernlight) isn't in device list (Moss)"), 1u);

    ::setenv("LC_ALL", "C", 1);
    EXPECT_EQ(stateFor(permissiveEntry()), BackendState::Enabled) << "no country code passes any list";
}

TEST_F(UpdateBackendStateTest, FiltersAndAThresholdAreRequiredAndTheDrawIsComparedWithBothThresholds) {
    EXPECT_EQ(stateFor(entryWithout("filters")), BackendState::Disabled);
    EXPECT_EQ(logged("<4>HTTPSPostBackend(updateBackendState): filters are required."), 1u);
    EXPECT_EQ(stateFor(entryWith("filters", Array{})), BackendState::Enabled);

    EXPECT_EQ(stateFor(entryWithout("sampling_threshold")), BackendState::Disabled);
    Dictionary entry = entryWith("sampling_threshold", 0.3);
    EXPECT_EQ(stateFor(entry, 0.3), BackendState::Enabled);
    EXPECT_EQ(stateFor(entry, 0.5), BackendState::SampledOut);
    entry.set("override_sampling", 0.6);
    const auto sampledOut = personalBackend(entry, userInfo(), 0.5);
    EXPECT_EQ(sampledOut->state(), BackendState::SampledOut);
    EXPECT_EQ(*onlyEventIn(send(*sampledOut, {}, 0, 1, 1)).find("OverrideSampling"), Value(0.6));
    entry.set("override_sampling", 0.4);
    EXPECT_EQ(stateFor(entry, 0.5), BackendState::Disabled);
    EXPECT_EQ(stateFor(entryWith("sampling_threshold", 1), 0.99), BackendState::Enabled);

    platform::replaceRandomDraw([] { return 0.25; });
    EXPECT_EQ(enabledBackend()->samplingFactor(), 0.25);
}

TEST_F(UpdateBackendStateTest, TheMatchingEntrySetsTheBackendUp) {
    Dictionary first = entryWith("client", "Maps"), second = entryWith("client", "Mail");
    first.set("expedite", 0);
    second.set("expedite", 1);
    second.set("hierarchy", 2);
    auto backend = backendWithClients({Value("no entry"), Value(first), Value(second), Value(first)});
    backend->setRequireUserInfo(true);
    backend->setUserInfoDict(userInfo());
    backend->setBatchEvents(true);
    backend->updateState();
    EXPECT_FALSE(backend->batchEvents());
    EXPECT_EQ(logged("<7>HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=0"), 1u);
    EXPECT_EQ(backend->hierarchy(), 2);
    EXPECT_EQ(backend->samplingThreshold(), Value(1.0));
    EXPECT_EQ(logged("event_threshold value not found in storebag - defaulting to 49"), 1u);
    EXPECT_EQ(logged("<7>HTTPSPostBackend(updateBackendState): httppost: client found Mail, state? 2, 0."),
              1u);

    backend->setUserInfoDict(userInfo("Maps"));
    backend->updateState();
    EXPECT_TRUE(backend->batchEvents());
    EXPECT_EQ(backend->hierarchy(), 0);
}

TEST_F(UpdateBackendStateTest, OrdinaryUrlIsKeptRealtimeUrlIsDerivedAnewAndAUserDefaultSurvivesEveryEntry) {
    auto backend = enabledBackend();
    EXPECT_TRUE(backend->updatePostLink(
        {{"post_url", "https://a.invalid"}, {"realtime_post_url", "https://b.invalid"}}));
    EXPECT_EQ(backend->postURL(), "https://a.invalid");
    EXPECT_EQ(logged("Storebag 'https://b.invalid' for realtimePostURL"), 1u);
    EXPECT_FALSE(backend->updatePostLink({}));
    EXPECT_EQ(backend->postURL(), "https://a.invalid");
    EXPECT_EQ(logged("realtimePostURL defaults to postURL 'https://a.invalid'"), 1u);

    write("etc/quorvane/defaults/com.velmora.quorvane.toml", "httpsPostURL = \"https://default.invalid\"\n");
    backend = enabledBackend({{"post_url", "https://a.invalid"}});
    EXPECT_EQ(backend->postURL(), "https://default.invalid");
    EXPECT_EQ(
        logged("<7>HTTPSPostBackend(initWithName): Using user default 'https://default.invalid' for postURL"),
        1u);
    EXPECT_EQ(logged("realtimePostURL defaults to postURL 'https://default.invalid'"), 1u);
}

}  // namespace
}  // namespace quorvane

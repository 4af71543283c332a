#include "tests/session/SessionFixture.h"

#include <cstdlib>

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class ConfigurationTest : public SessionFixture {
  protected:
    static auto resynchronised() {
        return ElementsAre("userInfoUpdatedForSession", "updateDownstreamSessions");
    }

    static Dictionary names(const char* client, const char* service) {
        return {{"ClientName", client}, {"ServiceName", service}};
    }

    /// The payload of the event that a session sends as it starts.
    Dictionary firstPayload() {
        startedSession({}, {}, true);
        const auto events = _client->takeEvents();
        EXPECT_GE(events.size(), 1u);
        if (events.empty()) return {};
        EXPECT_EQ(events[0].category, 0);
        EXPECT_EQ(events[0].type, 0);
        return events[0].payload.value_or(Dictionary());
    }
};

TEST_F(ConfigurationTest, ASessionKeepsWhatItsClientTellsUnderAnIdentifierOfItsOwn) {
    const auto session = makeSession();
    EXPECT_THAT(session->sessionIDString(), MatchesRegex("[A-Za-z0-9+/]{22}=="));
    EXPECT_NE(session->sessionIDString(), makeSession()->sessionIDString());
    const std::string warning =
        "<4>setSessionInfo: Configure session: user info provided without requiring it";
    session->setSessionInfo({{"SessionID", 4'294'967'300}}, names("Mail", "Sync"), {"Quorvane"}, true);
    EXPECT_EQ(session->sessionID(), 4u) << "cut to 32 bits";
    EXPECT_EQ(*session->userInfo(), names("Mail", "Sync"));
    EXPECT_EQ(logged(warning), 1u);

    const Dictionary requiring{{"SessionID", "no number"}, {"RequireUserInfo", true}};
    session->setSessionInfo(requiring, names("Mail", "Sync"), {}, false);
    session->setSessionInfo(requiring, std::nullopt, {}, false);
    EXPECT_EQ(session->sessionID(), 0u);
    EXPECT_EQ(session->userInfo(), nullptr);
    EXPECT_FALSE(session->hasAggregator());
    EXPECT_EQ(logged(warning), 1u);
    EXPECT_THAT(_delegate.takeCalls(), IsEmpty());
}

TEST_F(ConfigurationTest, StartMakesTheBackendsAndAnswersThoseThatReport) {
    _delegate.storebag = storebagWith({{"dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 9}}},
                                       {"httppost", profile()},
                                       {"httppost2", Dictionary{}},
                                       {"nonesuch", Dictionary{}}});
    const auto session = configuredSession();
    EXPECT_THAT(start(*session).value(), ElementsAre("dashboard", "httppost"));
    EXPECT_THAT(_delegate.takeCalls(), ElementsAre("storebagForSession", "storebagVersionForSession",
                                                   "getAncestorWithAggregatorForSession",
                                                   "userInfoUpdatedForSession", "updateDownstreamSessions"));
    for (const char* line : {"<7>startConfigWithCompletionHandler: Starting configuration for session 7",
                             "<7>createBackendsWithStorebag: Creating backends for session 7",
                             "<7>internalSendMessage: Sent internal message (method:0 respCode:0)",
                             "<3>QuorvaneBackend(newBackendWithName): nonesuch"})
        EXPECT_EQ(logged(line), 1u) << line;

    EXPECT_THAT(posted(), IsEmpty()) << "the first event is sent before the states are worked out";
    flush(*session);
    const auto events = posted();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(*events[0].string("_sessionID"), session->sessionIDString());

    session->startConfigWithCompletionHandler({});
    session->fetchStatesWithUserInfo({}, {});
    session->fetchDisplayURL({});
}

TEST_F(ConfigurationTest, StatesFollowTheUserInfoThatArrivesAndChanges) {
    Dictionary entry = entryWith("client", "Mail");
    entry.set("hierarchy", 2);
    _delegate.storebag = storebagWith({{"httppost", profile("post", entry)}});
    const auto session = configuredSession({{"RequireUserInfo", true}});
    EXPECT_THAT(start(*session).value(), IsEmpty());
    EXPECT_EQ(session->getSessionHierarchy(), 0);
    _delegate.takeCalls();

    EXPECT_THAT(fetchStates(*session, names("Mail", "Sync")).value(), ElementsAre("httppost"));
    EXPECT_THAT(_delegate.takeCalls(), resynchronised());
    EXPECT_EQ(session->getSessionHierarchy(), 2);

    Dictionary otherKeys = names("Mail", "Sync");
    otherKeys.set("Further", 1);
    EXPECT_THAT(fetchStates(*session, otherKeys).value(), ElementsAre("httppost"));
    EXPECT_FALSE(session->userInfo()->contains("Further"));
    EXPECT_THAT(_delegate.takeCalls(), IsEmpty());

    EXPECT_THAT(fetchStates(*session, names("Maps", "Sync")).value(), IsEmpty());
    EXPECT_THAT(fetchStates(*session, names("Mail", "Push")).value(), ElementsAre("httppost"));
    _delegate.takeCalls();
    EXPECT_THAT(fetchStates(*session, std::nullopt).value(), IsEmpty());
    EXPECT_THAT(_delegate.takeCalls(), resynchronised());
    fetchStates(*session, std::nullopt);
    EXPECT_THAT(_delegate.takeCalls(), IsEmpty());

    for (int times = 0; times < 2; ++times) {
        _delegate.takeCalls();
        fetchStates(*session, Dictionary{{"ClientName", "Mail"}});
    }
    EXPECT_THAT(_delegate.takeCalls(), resynchronised()) << "absent names are never equal";
}

TEST_F(ConfigurationTest, TheDisplayUrlIsTheFirstBackendsThatHasOne) {
    Dictionary section{{"dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 9}}},
                       {"httppost", profile()},
                       {"httppost2", profile()}};
    const auto session = configuredSession({{"SessionID", 3'000'000'000u}});
    const auto displayURL = [&] {
        _delegate.storebag = storebagWith(section);
        start(*session);
        return fetchDisplayURL(*session);
    };
    EXPECT_EQ(displayURL(), "URL not available");
    for (const std::string name : {"dashboard", "httppost2", "httppost"}) {
        Dictionary profile = *section.dictionary(name);
        profile.set("display_url", "https://" + name + ".invalid");
        section.set(name, profile);
        EXPECT_EQ(displayURL(), "https://" + name + ".invalid?sequences=3000000000&override=yes");
    }
}

TEST_F(ConfigurationTest, ARestartReplacesTheBackendsAndTheVersion) {
    _delegate.storebagVersion = "1";
    auto session = startedSession({{"BatchEvent", true}});
    send(*session, 5, 6, nullptr);
    _delegate.storebagVersion = "2";
    _delegate.storebag = storebagWith({{"httppost", profile("elsewhere")}});
    start(*session);
    send(*session, 5, 6, nullptr);
    session.reset();

    EXPECT_EQ(posted("/post").size(), 2u) << "what a replaced backend holds and may post is posted first";
    const auto events = posted("/elsewhere");
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].integer("_eventNumber"), 1);
    EXPECT_EQ(*events[2].string("StorebagVersion"), "2");
}

TEST_F(ConfigurationTest, TheFirstEventTellsStrangersTheTimeSettingAlone) {
    EXPECT_EQ(firstPayload(), (Dictionary{{"AutomaticTimeSet", true}}));
    write("etc/quorvane/defaults/com.velmora.timed.toml", "TMAutomaticTimeZoneEnabled = false\n");
    EXPECT_EQ(firstPayload(), (Dictionary{{"AutomaticTimeSet", false}}));
}

TEST_F(ConfigurationTest, TheFirstEventOfAnInternalBuildTellsTheDevice) {
    write("etc/quorvane/device.toml", R"(
ReleaseType = "Internal"
SerialNumber = "QV01"
ProductVersion = "12.4"
BuildVersion = "24E214"
HWModelStr = "Q12AP"
DeviceName = "Reception"
)");
    Dictionary expected{{"AutomaticTimeSet", true}, {"Build", "24E214"},      {"Hardware", "Q12AP"},
                        {"Locale", "US"},           {"Product", "Reception"}, {"ReportVers", "7.0"},
                        {"SerialNum", "QV01"},      {"Version", "12.4"}};
    EXPECT_EQ(firstPayload(), expected);
    ::setenv("LC_ALL", "C", 1);
    expected.remove("Locale");
    EXPECT_EQ(firstPayload(), expected);
}

TEST_F(ConfigurationTest, TearDownSendsAFinalEventFlushesAndEndsAggregation) {
    _delegate.storebagVersion = "12";
    auto session = startedSession({{"BatchEvent", true}}, {}, true);
    _client->takeEvents();
    // The marker comes after the flush.
    _client->onEvent = [flushed = 0u]() mutable {
        EXPECT_EQ(logged("<7>HTTPSPostBackend(flushMessages): called"), std::exchange(flushed, 1u));
    };
    session.reset();

    EXPECT_EQ(logged("<7>dealloc: QuorvanedSession dealloc: 7"), 1u);
    EXPECT_EQ(logged("<7>internalSendMessage: Sent internal message (method:0 respCode:1)"), 1u);
    EXPECT_EQ(posted().at(1).integer("_status"), 1);
    const auto relayed = _client->takeEvents();
    ASSERT_EQ(relayed.size(), 2u);
    EXPECT_EQ(relayed[0].type, 1);
    EXPECT_EQ(relayed[0].payload, (Dictionary{{"StorebagVersion", "12"}}));
    EXPECT_TRUE(relayed[1].endsAggregation());

    _client->onEvent = nullptr;
    _delegate.storebagVersion = std::nullopt;
    startedSession({}, {}, true);
    EXPECT_EQ(_client->takeEvents().at(1).payload, Dictionary());
}

}  // namespace
}  // namespace quorvane

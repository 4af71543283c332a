#include "tests/session/SessionFixture.h"

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SingleShotTest : public SessionFixture {
  protected:
    /// The replies to one single shot with category 5, type 6 and {count = 1}.
    static std::vector<std::string> shoot(QuorvanedSession& session, const Dictionary& sessionInfo,
                                          const std::optional<Dictionary>& user = {}) {
        std::vector<std::string> replies;
        const Dictionary payload{{"count", 1}};
        session.sendMessageWithSessionInfo(sessionInfo, user, 5, 6, &payload,
                                           [&](const std::string& reply) { replies.push_back(reply); });
        return replies;
    }

    static Dictionary info(const Dictionary& further = {}) {
        Dictionary info{{"SessionID", 9}, {"ClientType", 8}};
        for (const auto& [key, value] : further) info.set(key, value);
        return info;
    }

    static Dictionary names() { return {{"ClientName", "Mail"}, {"ServiceName", "Sync"}}; }
};

TEST_F(SingleShotTest, SendsOneEventThroughBackendsOfItsOwn) {
    _delegate.storebag = storebagWith({{"httppost", profile("lasting")}});
    const auto session = startedSession({}, {}, true);
    _client->takeEvents();
    _delegate.storebag = storebagWith({{"httppost", profile()}});
    EXPECT_THAT(shoot(*session, info()), ElementsAre("finished"));

    const auto events = posted();
    ASSERT_EQ(events.size(), 1u) << "no first event, no last event";
    EXPECT_EQ(events[0].integer("count"), 1);
    EXPECT_EQ(events[0].integer("_method"), 5);
    EXPECT_EQ(events[0].integer("_status"), 6);
    EXPECT_FALSE(events[0].contains("_sessionID"));
    EXPECT_THAT(messageLog(), HasSubstr(") [httppost -> sendMessageWithSessionInfo] {"));
    EXPECT_EQ(logged("<7>sendMessageWithSessionInfo: Sending single message with sessionID 9"), 1u);
    EXPECT_THAT(_client->takeEvents(), IsEmpty()) << "no relay";

    EXPECT_EQ(session->sessionID(), 9u);
    EXPECT_EQ(*session->sessionInfo(), info());
    send(*session, 5, 6, nullptr);
    EXPECT_EQ(posted("/lasting").size(), 2u) << "the session's own backends are as they were";
}

TEST_F(SingleShotTest, TakesTheUserInfoIntoTheSession) {
    const auto session = startedSession();
    EXPECT_THAT(shoot(*session, info(), names()), ElementsAre("finished"));
    EXPECT_EQ(*session->userInfo(), names());
    EXPECT_THAT(_delegate.takeCalls(),
                ElementsAre("userInfoUpdatedForSession", "updateDownstreamSessions", "storebagForSession"));
    EXPECT_THAT(shoot(*session, info({{"RequireUserInfo", true}}), names()), ElementsAre("finished"));
    EXPECT_THAT(_delegate.takeCalls(), ElementsAre("storebagForSession"));
    EXPECT_EQ(logged("<4>sendMessageWithSessionInfo: user info provided without requiring it."), 1u);
}

TEST_F(SingleShotTest, WhatItsBackendsWouldHoldIsLost) {
    const auto session = configuredSession();
    EXPECT_THAT(shoot(*session, info({{"BatchEvent", true}})), ElementsAre("finished"));
    EXPECT_THAT(shoot(*session, info({{"RequireUserInfo", true}})), ElementsAre("finished"));
    EXPECT_EQ(logged("<7>HTTPSPostBackend(sendMessage): Batching"), 2u);
    EXPECT_THAT(posted(), IsEmpty());
    EXPECT_EQ(messageLog(), "");
}

TEST_F(SingleShotTest, WithoutIdentifiersTheClientIsNotAnswered) {
    const auto session = startedSession();
    for (const Dictionary& lacking : {Dictionary{{"SessionID", 9}}, Dictionary{{"ClientType", 8}}})
        EXPECT_THAT(shoot(*session, lacking, names()), IsEmpty());
    EXPECT_EQ(logged("<3>sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo"), 2u);
    EXPECT_EQ(session->sessionID(), 7u);
    EXPECT_THAT(_delegate.takeCalls(), IsEmpty());
}

TEST_F(SingleShotTest, TellsWhenThereIsNoStorebagButNotWhenThereIsNoBackend) {
    const auto session = configuredSession();
    _delegate.storebag = nullptr;
    EXPECT_THAT(shoot(*session, info()), ElementsAre("storebag not available"));
    EXPECT_EQ(session->sessionID(), 9u);

    _delegate.storebag = storebagWith({{"nonesuch", Dictionary{}}});
    EXPECT_THAT(shoot(*session, info()), ElementsAre("finished"));
    EXPECT_EQ(logged("<3>sendMessageWithSessionInfo: No backends available to send single message"), 1u);
    session->sendMessageWithSessionInfo(info(), std::nullopt, 5, 6, nullptr, {});
}

}  // namespace
}  // namespace quorvane

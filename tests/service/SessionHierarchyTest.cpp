#include "service/SessionHierarchy.h"

#include "session/QuorvanedSession.h"
#include "tests/support/RootFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quorvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Optional;

/// A client that counts what it is given: events, and the ends of its aggregation.
class CountingClient final : public ClientSessionReplyInterface {
  public:
    std::optional<std::string> sendMessageToClient(const Dictionary&, double timestamp, std::uint16_t,
                                                   std::uint16_t, const Dictionary*) override {
        ++(timestamp == 0 ? ends : events);
        return std::nullopt;
    }

    std::atomic<int> events = 0;
    std::atomic<int> ends = 0;
};

/// The agent as far as the hierarchy goes. A session's client type is its level.
class Family final : public QuorvanedSessionDelegate {
  public:
    std::recursive_mutex& lock() override { return _lock; }
    std::shared_ptr<const Dictionary> storebagForSession(const QuorvanedSession& session) override {
        Dictionary entry{{"hierarchy", session.sessionInfo()->integer("ClientType")},
                         {"locale_whitelist", Array{"US"}},
                         {"filters", Array{}},
                         {"sampling_threshold", 1.0}};
        if (session.sessionInfo()->contains("Excluded")) entry.set("client", "Nobody");
        return std::make_shared<const Dictionary>(
            Dictionary{{"httppost", Dictionary{{"clients", Array{Value(entry)}}}}});
    }
    std::optional<std::string> storebagVersionForSession(const QuorvanedSession&) override { return "1"; }
    void userInfoUpdatedForSession(QuorvanedSession& session) override {
        hierarchy.userInfoUpdatedForSession(session);
        if (whenFiled) std::exchange(whenFiled, nullptr)();
    }
    void updateDownstreamSessions(QuorvanedSession& session) override {
        hierarchy.updateDownstreamSessions(session);
    }
    std::optional<std::string> parentSessionIDStringForSession(const QuorvanedSession& session) override {
        return hierarchy.parentSessionIDStringForSession(session);
    }
    QuorvanedSession* parentSessionForChild(const QuorvanedSession& session) override {
        return hierarchy.parentSessionForChild(session);
    }
    QuorvanedSession* getAncestorWithAggregatorForSession(const QuorvanedSession& session) override {
        return hierarchy.getAncestorWithAggregatorForSession(session);
    }
    std::string description() const override { return "a family"; }

  private:
    std::recursive_mutex _lock;

  public:
    SessionHierarchy hierarchy{_lock};
    /// Runs once, when the next session has been filed and its backends are not set up yet.
    std::function<void()> whenFiled;
};

/// The session is removed from the hierarchy when the last share of it goes, as the agent does it.
struct Member {
    std::shared_ptr<QuorvanedSession> session;
    std::shared_ptr<CountingClient> client;
};

class SessionHierarchyTest : public RootFixture {
  protected:
    void SetUp() override {
        RootFixture::SetUp();
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
        write("etc/quorvane/consent.toml", "diagnostics_submission = true\n");
    }

    static Dictionary names(const std::string& client, const std::string& service = "Sync") {
        return {{"ClientName", client}, {"ServiceName", service}};
    }

    /// A session that is configured; its number is 100 more than its level.
    Member configured(int level, std::optional<Dictionary> userInfo, bool aggregates = false) {
        Member member{nullptr, std::make_shared<CountingClient>()};
        auto owned = QuorvanedSession::initWithSessionDelegate(_family, member.client);
        QuorvanedSession* session = owned.get();
        member.session.reset(session, [this, owned = std::move(owned)](const QuorvanedSession* ended) {
            const std::scoped_lock lock(_family.lock());
            _family.hierarchy.removeSession(*ended);
        });
        member.session->setSessionInfo(
            {{"SessionID", 100 + level}, {"ClientType", level}, {"RequireUserInfo", true}},
            std::move(userInfo), {}, aggregates);
        return member;
    }

    Member started(int level, const std::string& client = "Mail", bool aggregates = false) {
        Member member = configured(level, names(client), aggregates);
        member.session->startConfigWithCompletionHandler({});
        return member;
    }

    std::optional<std::string> parentsOf(const Member& member) {
        return _family.parentSessionIDStringForSession(*member.session);
    }

    QuorvanedSession* parentOf(const Member& member) {
        const std::scoped_lock lock(_family.lock());
        return _family.parentSessionForChild(*member.session);
    }

    QuorvanedSession* aggregatorOf(const Member& member) {
        const std::scoped_lock lock(_family.lock());
        return _family.getAncestorWithAggregatorForSession(*member.session);
    }

    Family _family;
};

TEST_F(SessionHierarchyTest, AncestorsAreNamedTopDownHoweverTheyCame) {
    const Member c = started(2);
    const Member a = started(0);
    const Member b = started(1);
    EXPECT_EQ(parentsOf(a), std::nullopt);
    EXPECT_EQ(parentsOf(b), a.session->sessionIDString());
    EXPECT_EQ(parentsOf(c), a.session->sessionIDString() + "." + b.session->sessionIDString());
    EXPECT_EQ(parentOf(a), nullptr);
    EXPECT_EQ(parentOf(b), a.session.get());
    EXPECT_EQ(parentOf(c), b.session.get());
    const std::string combined = "updateCombinedSessionID: Updating combined session ID '" + *parentsOf(c) +
                                 "." + c.session->sessionIDString() + "' for session 102";
    EXPECT_EQ(logged(combined), 1u) << "when the last of its ancestors was filed";
}

TEST_F(SessionHierarchyTest, IdentifiersEndAtAGap) {
    const Member c = started(2);
    EXPECT_EQ(parentsOf(c), std::nullopt);
    EXPECT_GE(logged("<6>parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): "
                     "incomplete parentSessionID is '(null)'"),
              1u);
    EXPECT_EQ(parentOf(c), nullptr);
    EXPECT_GE(logged("<6>parentSessionForChild: Unable to find session with hierarchy of 1 for userInfoKey "
                     "'mail:sync'"),
              1u);
    EXPECT_GE(logged("is missing its parent"), 1u);
    const Member b = started(1);
    EXPECT_EQ(parentsOf(c), b.session->sessionIDString());
    EXPECT_EQ(logged("incomplete parentSessionID is '" + b.session->sessionIDString() + "'"), 2u);
}

TEST_F(SessionHierarchyTest, OfSeveralAtOneLevelTheFirstFiledCountsUntilItGoes) {
    Member first = started(0);
    const Member second = started(0);
    const Member child = started(1);
    EXPECT_EQ(parentOf(child), first.session.get());
    first.session->startConfigWithCompletionHandler({});
    EXPECT_EQ(parentOf(child), second.session.get()) << "filing anew puts it at the end";
    second.session->startConfigWithCompletionHandler({});
    EXPECT_EQ(parentOf(child), first.session.get());
    first.session.reset();
    EXPECT_EQ(parentOf(child), second.session.get());
    EXPECT_EQ(_family.hierarchy.groupCount(), 1u);
}

TEST_F(SessionHierarchyTest, NamesThatDifferInCaseShareAGroupAndOthersDoNot) {
    const Member top = started(0, "MAIL");
    const Member child = started(1, "mail");
    const Member stranger = started(1, "mail2");
    EXPECT_EQ(parentOf(child), top.session.get());
    EXPECT_EQ(parentOf(stranger), nullptr);
    child.session->fetchStatesWithUserInfo(names("Mail2"), {});
    EXPECT_EQ(parentOf(child), nullptr) << "it has moved to the other group";
    EXPECT_EQ(_family.hierarchy.groupCount(), 2u);
    EXPECT_EQ(userInfoKey(configured(0, std::nullopt).session->userInfo().get()), ":");
    EXPECT_EQ(
        userInfoKey(
            configured(0, Dictionary{{"ServiceName", "X"}, {"ClientName", 5}}).session->userInfo().get()),
        ":x");
}

TEST_F(SessionHierarchyTest, ASessionThatIsNotFiledHasNoParents) {
    const Member top = started(0);
    const Member child = started(1);
    // New names that are not filed yet: their group does not exist, then it does without this session.
    child.session->setSessionInfo({{"SessionID", 101}, {"ClientType", 1}, {"RequireUserInfo", true}},
                                  names("Other"), {}, false);
    EXPECT_EQ(parentsOf(child), std::nullopt);
    EXPECT_EQ(parentOf(child), nullptr);
    EXPECT_EQ(
        logged("<3>parentSessionIDStringForSession: ERROR: No sessions found for user info key other:sync"),
        1u);
    EXPECT_EQ(logged("<3>parentSessionForChild: ERROR: No sessions found for user info key other:sync"), 1u);
    const Member otherTop = started(0, "Other");
    EXPECT_EQ(parentsOf(child), std::nullopt);
    EXPECT_EQ(parentOf(child), nullptr);
    EXPECT_EQ(logged("<3>parentSessionIDStringForSession: ERROR: Session 101 not found for user info key "
                     "other:sync"),
              1u);
    EXPECT_EQ(logged("<3>parentSessionForChild: ERROR: Session 101 not found for user info key other:sync"),
              1u);

    const Member nameless = configured(1, std::nullopt);
    nameless.session->startConfigWithCompletionHandler({});
    EXPECT_EQ(aggregatorOf(nameless), nullptr);
    for (const char* operation :
         {"userInfoUpdatedForSession", "updateDownstreamSessions", "getAncestorWithAggregatorForSession"})
        EXPECT_GE(logged(std::string("<6>") + operation + ": No user info found for session 101"), 1u);
}

TEST_F(SessionHierarchyTest, TheRemovedSessionLeavesTheGroupItWasFiledInWhateverItsNamesAreNow) {
    Member top = started(0);
    const Member child = started(1);
    top.session->setSessionInfo({{"SessionID", 100}, {"ClientType", 0}}, names("Other"), {}, false);
    top.session.reset();
    EXPECT_EQ(parentOf(child), nullptr);
}

TEST_F(SessionHierarchyTest, AChildFollowsTheStatesOfItsParent) {
    const Member child = started(1);
    EXPECT_THAT(child.session->fetchReportingStates(), Optional(ElementsAre("httppost")));
    Member top = configured(0, names("Mail"));
    top.session->setSessionInfo(
        {{"SessionID", 100}, {"ClientType", 0}, {"RequireUserInfo", true}, {"Excluded", true}}, names("Mail"),
        {}, false);
    top.session->startConfigWithCompletionHandler({});
    EXPECT_THAT(top.session->fetchReportingStates(), Optional(testing::IsEmpty()));
    EXPECT_THAT(child.session->fetchReportingStates(), Optional(testing::IsEmpty()));
}

TEST_F(SessionHierarchyTest, ASessionThatIsBeingSetUpIsNobodysParent) {
    // Until its backends know their level they stand at the top and do not report.
    Member child;
    _family.whenFiled = [&] { child = started(1); };
    const Member lower = started(2);
    EXPECT_EQ(parentsOf(child), std::nullopt);
    EXPECT_THAT(child.session->fetchReportingStates(), Optional(ElementsAre("httppost")));
    EXPECT_EQ(parentOf(lower), child.session.get());
    EXPECT_EQ(parentsOf(lower), child.session->sessionIDString());
}

TEST_F(SessionHierarchyTest, OnlyTheTopmostAggregatorKeepsAggregating) {
    const Member c = started(2, "Mail", true);
    const Member d = started(3, "Mail", true);
    EXPECT_EQ(c.client->ends, 0);
    EXPECT_FALSE(d.session->hasAggregator()) << "it came below one";
    EXPECT_EQ(d.client->ends, 1);
    EXPECT_EQ(aggregatorOf(d), c.session.get());

    const Member a = started(0, "Mail", true);
    EXPECT_TRUE(a.session->hasAggregator());
    EXPECT_FALSE(c.session->hasAggregator());
    EXPECT_EQ(c.client->ends, 1);
    EXPECT_EQ(d.client->ends, 1);
    const Member b = started(1, "Mail");
    for (const Member* below : {&b, &c, &d}) EXPECT_EQ(aggregatorOf(*below), a.session.get());
    EXPECT_EQ(aggregatorOf(a), nullptr);

    const int before = a.client->events;
    d.session->sendMessageWithCategory(1, 2, nullptr, {});
    EXPECT_EQ(a.client->events, before + 1);
}

TEST_F(SessionHierarchyTest, KeysOfEmptiedGroupsAreForgottenPastTheirBound) {
    const Member member = started(0);
    const auto rename = [&](char letter) {
        member.session->fetchStatesWithUserInfo(names(std::string(300'000, letter)), {});
    };
    for (const char letter : {'a', 'b', 'c', 'd', 'e'}) rename(letter);
    EXPECT_EQ(_family.hierarchy.groupCount(), 6u);
    rename('a');
    EXPECT_EQ(_family.hierarchy.groupCount(), 6u) << "a known one";
    rename('d');
    rename('e');
    EXPECT_EQ(_family.hierarchy.groupCount(), 8u) << "as good as new";
}

TEST_F(SessionHierarchyTest, FamiliesOnManyThreadsDoNotDisturbEachOther) {
    std::vector<std::thread> threads;
    for (int level = 0; level < 4; ++level)
        threads.emplace_back([this, level] {
            for (int round = 0; round < 20; ++round) {
                const Member member = started(level, round % 2 == 0 ? "Mail" : "News", level % 2 == 1);
                member.session->sendMessageWithCategory(1, 2, nullptr, {});
                member.session->fetchStatesWithUserInfo(names("News"), {});
                member.session->sendMessageWithCategory(1, 2, nullptr, {});
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(_family.hierarchy.groupCount(), 2u);
}

}  // namespace
}  // namespace quorvane

#include "service/SessionHierarchy.h"

#include "session/QuorvanedSession.h"
#include "tests/session/RecordingPeers.h"
#include "tests/support/RootFixture.h"

#include <cstdlib>
#include <mutex>
#include <optional>
#include <utility>

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

/// The agent as far as the hierarchy goes. A session's client type is its level.
class Family final : public RecordingDelegate {
  public:
    std::shared_ptr<const Dictionary> storebagForSession(const QuorvanedSession& session) override {
        const Dictionary entry{{"hierarchy", session.sessionInfo()->integer("ClientType")},
                               {"locale_whitelist", countries},
                               {"filters", Array{}},
                               {"sampling_threshold", 1.0}};
        return std::make_shared<const Dictionary>(
            Dictionary{{"httppost", Dictionary{{"clients", Array{Value(entry)}}}}});
    }
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

    explicit Family(GroupSharing sharing = {}) : hierarchy(lock(), sharing) {}

    SessionHierarchy hierarchy;
    Array countries{"US"};  ///< Whose sessions report that start from now on.
    /// Runs once, when the next session has been filed and its backends are not set up yet.
    std::function<void()> whenFiled;
};

class SessionHierarchyTest : public RootFixture {
  protected:
    SessionHierarchyTest() {
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
        write("etc/quorvane/consent.toml", "diagnostics_submission = true\n");
    }

    using Session = std::shared_ptr<QuorvanedSession>;

    static Dictionary names(const std::string& client) {
        return {{"ClientName", client}, {"ServiceName", "Sync"}};
    }

    /// A session that is configured; its number is 100 more than its level. It is removed from the hierarchy
    /// when the last share of it goes, as the agent does it.
    Session configured(int level, std::optional<Dictionary> userInfo, uid_t user = 0) {
        auto owned =
            QuorvanedSession::initWithSessionDelegate(*_family, std::make_shared<RecordingClient>(user));
        QuorvanedSession* made = owned.get();
        Session session(made, [this, owned = std::move(owned)](const QuorvanedSession* ended) {
            const std::scoped_lock lock(_family->lock());
            _family->hierarchy.removeSession(*ended);
        });
        session->setSessionInfo(
            {{"SessionID", 100 + level}, {"ClientType", level}, {"RequireUserInfo", true}},
            std::move(userInfo), {}, false);
        return session;
    }

    Session started(int level, const std::string& client = "Mail", uid_t user = 0) {
        Session session = configured(level, names(client), user);
        session->startConfigWithCompletionHandler({});
        return session;
    }

    std::optional<std::string> parentsOf(const Session& session) {
        return _family->parentSessionIDStringForSession(*session);
    }

    QuorvanedSession* parentOf(const Session& session) {
        const std::scoped_lock lock(_family->lock());
        return _family->parentSessionForChild(*session);
    }

    std::optional<Family> _family{std::in_place};
};

TEST_F(SessionHierarchyTest, ASessionThatIsNotFiledHasNoParents) {
    const Session top = started(0);
    const Session child = started(1);
    // New names that are not filed yet: their group does not exist, then it does without this session.
    child->setSessionInfo({{"SessionID", 101}, {"ClientType", 1}, {"RequireUserInfo", true}}, names("Other"),
                          {}, false);
    const auto expectError = [&](const std::string& error) {
        EXPECT_EQ(parentsOf(child), std::nullopt);
        EXPECT_EQ(parentOf(child), nullptr);
        for (const char* operation : {"parentSessionIDStringForSession", "parentSessionForChild"})
            EXPECT_EQ(logged(fmt::format("<3>{}: ERROR: {}", operation, error)), 1u) << operation;
    };
    expectError("No sessions found for user info key other:sync");
    const Session otherTop = started(0, "Other");
    expectError("Session 101 not found for user info key other:sync");

    const Session nameless = configured(1, std::nullopt);
    nameless->startConfigWithCompletionHandler({});
    for (const char* operation :
         {"userInfoUpdatedForSession", "updateDownstreamSessions", "getAncestorWithAggregatorForSession"})
        EXPECT_GE(logged(fmt::format("<6>{}: No user info found for session 101", operation)), 1u);
}

TEST_F(SessionHierarchyTest, TheRemovedSessionLeavesTheGroupItWasFiledInWhateverItsNamesAreNow) {
    Session top = started(0);
    const Session child = started(1);
    top->setSessionInfo({{"SessionID", 100}, {"ClientType", 0}}, names("Other"), {}, false);
    top.reset();
    EXPECT_EQ(parentOf(child), nullptr);
}

TEST_F(SessionHierarchyTest, ASessionThatIsBeingSetUpIsNobodysParent) {
    // Until its backends know their level they stand at the top and do not report.
    Session child;
    _family->whenFiled = [&] { child = started(1); };
    const Session lower = started(2);
    EXPECT_EQ(parentsOf(child), std::nullopt);
    EXPECT_THAT(child->fetchReportingStates(), Optional(ElementsAre("httppost")));
    EXPECT_EQ(parentOf(lower), child.get());
    EXPECT_EQ(parentsOf(lower), child->sessionIDString());
}

TEST_F(SessionHierarchyTest, ASessionThatIsFiledAnewStaysTheParentOfItsChildren) {
    const Session top = started(0);
    const Session child = started(1);
    QuorvanedSession* meanwhile = nullptr;
    _family->whenFiled = [&] { meanwhile = parentOf(child); };
    top->startConfigWithCompletionHandler({});
    EXPECT_EQ(meanwhile, top.get());
}

TEST_F(SessionHierarchyTest, ChildrenReportAsTheirParentDoesHoweverFarBelow) {
    const Session middle = started(1);
    EXPECT_EQ(logged("<6>syncReportingStates: child session 101 (backend httppost) is missing its parent"),
              1u);
    const Session bottom = started(2);
    const auto expectStates = [&](const auto& states) {
        for (const Session& session : {middle, bottom})
            EXPECT_THAT(session->fetchReportingStates(), Optional(states)) << session->sessionID();
    };
    expectStates(ElementsAre("httppost"));
    _family->countries = {};
    Session silent = started(0);
    expectStates(IsEmpty());
    silent.reset();
    expectStates(IsEmpty());  // As it was left.
    _family->countries = {"US"};
    const Session loud = started(0);
    expectStates(ElementsAre("httppost"));
}

TEST_F(SessionHierarchyTest, ASessionWithoutItsUserInfoIsNobodysParentAnyLonger) {
    const Session top = started(0);
    const Session middle = started(1);
    const Session child = started(2);
    ASSERT_EQ(parentOf(child), middle.get());
    middle->setSessionInfo({{"SessionID", 101}, {"ClientType", 1}, {"RequireUserInfo", true}}, std::nullopt,
                           {}, false);
    middle->startConfigWithCompletionHandler({});
    EXPECT_EQ(parentOf(child), nullptr) << "its new backend knows no level";
    EXPECT_EQ(logged("<6>parentSessionForChild: Unable to find session with hierarchy of 1 for userInfoKey "
                     "'mail:sync'"),
              1u);
}

TEST_F(SessionHierarchyTest, UsersShareGroupsAsTheDefaultSays) {
    write("etc/login.defs", "# SYS_UID_MAX 5\nSYS_UID_MAX\t\t  499\n");
    const auto isSystem = [](uid_t user) { return user <= 499; };
    const auto expectFamilies = [&](const std::string& setting, const auto& related) {
        write("etc/quorvane/defaults/com.velmora.quorvane.toml",
              fmt::format("share_groups_between_users = \"{}\"\n", setting));
        _family.emplace(GroupSharing::fromDefaults());
        for (const uid_t user : {0, 499, 500, 1000, 65534}) {
            const Session top = started(0, "Mail", user);
            top->setHasAggregator(true);
            for (const uid_t other : {0, 499, 500, 1000, 65534}) {
                const Session child = started(1, "Mail", other);
                const bool expected = user == other || related(user, other);
                EXPECT_EQ(parentOf(child) == top.get(), expected) << setting << user << " " << other;
                EXPECT_EQ(parentsOf(child).has_value(), expected) << setting << user << " " << other;
                const std::scoped_lock lock(_family->lock());
                EXPECT_EQ(_family->getAncestorWithAggregatorForSession(*child) != nullptr, expected);
            }
        }
    };
    const auto systemUsers = [&](uid_t a, uid_t b) { return isSystem(a) && isSystem(b); };
    expectFamilies("system", systemUsers);
    expectFamilies("all", [](uid_t, uid_t) { return true; });
    expectFamilies("none", [](uid_t, uid_t) { return false; });
    expectFamilies("All", systemUsers);
    EXPECT_EQ(
        logged("com.velmora.quorvane.toml: share_groups_between_users: system, all or none is expected"), 1u);
    write("etc/login.defs", "SYS_UID_MAX 70000\n");
    EXPECT_EQ(GroupSharing::fromDefaults().circleOf(65534), 65534u) << "never a system user";
}

TEST_F(SessionHierarchyTest, KeysOfEmptiedGroupsAreForgottenPastTheirBound) {
    const Session member = started(0);
    const auto rename = [&](char letter) {
        member->fetchStatesWithUserInfo(names(std::string(300'000, letter)), {});
    };
    for (const char letter : {'a', 'b', 'c', 'd', 'e'}) rename(letter);
    EXPECT_EQ(_family->hierarchy.groupCount(), 6u);
    rename('a');
    EXPECT_EQ(_family->hierarchy.groupCount(), 6u) << "a known one";
    rename('d');
    rename('e');
    EXPECT_EQ(_family->hierarchy.groupCount(), 8u) << "as good as new";
}

}  // namespace
}  // namespace quorvane

#include "tests/support/DaemonFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::UnorderedElementsAre;

constexpr std::uint16_t kOurs = 12;

class SessionsTest : public testing::Test {
  protected:
    std::vector<std::int64_t> numbersPosted() const {
        std::vector<std::int64_t> numbers;
        for (const Dictionary& record : _device.postedEvents(kOurs)) numbers.push_back(record.integer("n"));
        return numbers;
    }

    static Event event(int number) { return {.category = kOurs, .type = 3, .payload = {{{"n", number}}}}; }

    static SessionInfo plain() { return {.sessionID = 41, .clientType = 5}; }
    static SessionInfo batching() { return {.sessionID = 41, .clientType = 5, .batchEvent = true}; }
    static SessionInfo personal() {
        return {.sessionID = 41, .clientType = 5, .clientVersion = 2, .requireUserInfo = true};
    }

    DaemonFixture _device;
};

TEST_F(SessionsTest, WithoutAStorebagEveryAnswerIsNil) {
    _device.start();
    Client client = _device.connect();
    ASSERT_TRUE(client.setSessionInfo(plain()));
    for (int i = 0; i < 2; ++i) {
        const auto states = client.start();
        ASSERT_TRUE(states);
        EXPECT_FALSE(*states);
    }
    EXPECT_FALSE(*client.fetchStates(UserInfo{.clientName = "Mail", .serviceName = "Sync"}));
    EXPECT_FALSE(*client.send(event(1)));
    EXPECT_FALSE(*client.flush());
    EXPECT_EQ(*client.displayURL(), "URL not available");
    EXPECT_FALSE(*client.uploadLogData({"line"}));
    EXPECT_EQ(*client.sendMessageWithSessionInfo(plain(), {}, event(2)), "storebag not available");
    EXPECT_EQ(_device.server().requestCount(), 1u) << "one attempt in 900 s";
}

TEST_F(SessionsTest, AnEventReachesTheServerAsARecordAndIsAnsweredWithTheMessage) {
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    {
        Client client = _device.connect();
        ASSERT_TRUE(client.setSessionInfo(plain()));
        EXPECT_THAT(*client.start(), Optional(ElementsAre("httppost")));
        EXPECT_EQ(*client.displayURL(), "https://display.example/show?sequences=41&override=yes");
        const auto answer =
            client.send({.category = kOurs,
                         .type = 3,
                         .payload = {{{"text", "gr\u00fc\u00dfe"}, {"n", 7}, {"real", 0.5}}}});
        ASSERT_TRUE(answer);
        EXPECT_THAT(*answer, Optional(testing::HasSubstr("\"gr\u00fc\u00dfe\"")));
    }
    ASSERT_TRUE(_device.waitForEvents(kOurs, 1));
    const Dictionary record = _device.postedEvents(kOurs)[0];
    EXPECT_EQ(record.integer("_status"), 3);
    EXPECT_EQ(record.integer("n"), 7);
    EXPECT_EQ(record.find("real")->real(), 0.5);
    EXPECT_EQ(*record.string("text"), "gr\u00fc\u00dfe");
    EXPECT_EQ(record.string("_sessionID")->size(), 24u);

    // What the session tells of itself: its start and, after the client has gone, its end.
    ASSERT_TRUE(_device.waitForEvents(0, 2));
    auto own = _device.postedEvents(0);
    if (own[0].integer("_status") == 1) std::swap(own[0], own[1]);  // Posts may overtake each other.
    EXPECT_TRUE(own[0].boolean("AutomaticTimeSet"));
    EXPECT_EQ(own[1].integer("_status"), 1);
    const std::string* version = own[1].string("StorebagVersion");
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(*version, "7-test");
}

TEST_F(SessionsTest, HeldEventsGoOutWithAFlushAndWithTheEndOfTheConnection) {
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    {
        Client client = _device.startedClient(batching());
        EXPECT_FALSE(*client.send(event(1)));
        ASSERT_TRUE(client.sendAndForget(event(2)));
        EXPECT_TRUE(*client.flush());
        ASSERT_TRUE(_device.waitForEvents(kOurs, 2));
        for (int number = 3; number <= 20; ++number) ASSERT_TRUE(client.sendAndForget(event(number)));
    }
    ASSERT_TRUE(_device.waitForEvents(kOurs, 20));
    std::vector<std::int64_t> all(20);
    std::generate(all.begin(), all.end(), [n = 0]() mutable { return ++n; });
    EXPECT_EQ(numbersPosted(), all);
}

TEST_F(SessionsTest, StatesFollowTheUserInfoAndSoDoHeldEvents) {
    _device.serveStorebag(_device.httpPostSection({{"client", "Mail"}}));
    _device.start();
    Client client = _device.connect();
    ASSERT_TRUE(client.setSessionInfo(personal()));
    EXPECT_THAT(*client.start(), Optional(IsEmpty()));
    EXPECT_FALSE(*client.send(event(1)));
    EXPECT_THAT(*client.fetchStates(UserInfo{.clientName = "mail", .serviceName = "Sync"}),
                Optional(ElementsAre("httppost")));
    EXPECT_TRUE(*client.send(event(2)));
    EXPECT_THAT(*client.fetchStates(UserInfo{.clientName = "Other", .serviceName = "Sync"}),
                Optional(IsEmpty()));
    EXPECT_FALSE(*client.send(event(3)));
    ASSERT_TRUE(_device.waitForEvents(kOurs, 2));
    EXPECT_THAT(numbersPosted(), UnorderedElementsAre(1, 2));
    for (const Dictionary& record : _device.postedEvents(kOurs))
        EXPECT_EQ(*record.string("ClientName"), "mail");
}

/// Keeps what an aggregating client is given of our events.
class Aggregation {
  public:
    AggregationBlock block() {
        return {.event =
                    [this](AggregatedEvent given) {
                        const std::lock_guard lock(_mutex);
                        if (given.category == kOurs) _events.push_back(std::move(given));
                    },
                .ended = [this](const SessionInfo&) { _ended = true; }};
    }

    bool waitForEvents(std::size_t count) const {
        return eventually([&] { return events().size() >= count; });
    }

    std::vector<AggregatedEvent> events() const {
        const std::lock_guard lock(_mutex);
        return _events;
    }

    bool ended() const { return _ended; }

  private:
    mutable std::mutex _mutex;
    std::vector<AggregatedEvent> _events;
    std::atomic<bool> _ended = false;
};

TEST_F(SessionsTest, TheTopmostAggregatingClientOfAGroupGetsItsEvents) {
    _device.serveStorebag(_device.httpPostSection(), "pelmark");
    _device.serveStorebag(_device.httpPostSection({{"hierarchy", 1}}), "stremcore");
    _device.start();
    const UserInfo family{.clientName = "Mail", .serviceName = "Sync"};
    SessionInfo childInfo = personal();
    childInfo.clientType = 6;

    Aggregation ofChild;
    Client child = _device.connect();
    ASSERT_TRUE(child.setSessionInfo(childInfo, std::nullopt, {}, ofChild.block()));
    ASSERT_TRUE(child.start());
    ASSERT_TRUE(child.fetchStates(family));
    ASSERT_TRUE(child.send(event(1)));
    ASSERT_TRUE(ofChild.waitForEvents(1));
    EXPECT_FALSE(ofChild.ended());

    Aggregation ofParent;
    Client parent = _device.connect();
    SessionInfo parentInfo = personal();
    parentInfo.clientVersion = 9;
    ASSERT_TRUE(parent.setSessionInfo(parentInfo, std::nullopt, {}, ofParent.block()));
    ASSERT_TRUE(parent.start());
    EXPECT_THAT(*parent.fetchStates(UserInfo{.clientName = "MAIL", .serviceName = "sync"}),
                Optional(ElementsAre("httppost")));
    EXPECT_TRUE(eventually([&] { return ofChild.ended(); })) << "the parent aggregates now";
    ASSERT_TRUE(child.send(event(2)));
    ASSERT_TRUE(ofParent.waitForEvents(1));
    ASSERT_TRUE(parent.send(event(3)));
    ASSERT_TRUE(ofParent.waitForEvents(2));

    EXPECT_EQ(ofChild.events().size(), 1u);
    const AggregatedEvent relayed = ofParent.events()[0];
    EXPECT_EQ(relayed.payload->integer("n"), 2);
    EXPECT_EQ(relayed.sessionInfo.clientVersion, 9u) << "the parent's own, whoever sent the event";
    EXPECT_NEAR(relayed.timestamp, static_cast<double>(std::time(nullptr)), 60);

    ASSERT_TRUE(_device.waitForEvents(kOurs, 3));
    std::map<std::int64_t, std::string> identifiers;
    for (const Dictionary& record : _device.postedEvents(kOurs))
        identifiers[record.integer("n")] = *record.string("_sessionID");
    EXPECT_THAT(identifiers[2], testing::StartsWith(identifiers[3] + ".")) << "the parent's, then its own";
}

TEST_F(SessionsTest, ManyClientsAreServedSideBySide) {
    constexpr int kClients = 40;
    constexpr int kEvents = 50;
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i)
        threads.emplace_back([&, i] {
            Client client = _device.startedClient(batching());
            for (int number = 0; number < kEvents; ++number)
                EXPECT_TRUE(client.sendAndForget(event(i * kEvents + number)));
        });
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(_device.waitForEvents(kOurs, kClients * kEvents));
    auto numbers = numbersPosted();
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(numbers.back(), kClients * kEvents - 1);
    EXPECT_EQ(std::unique(numbers.begin(), numbers.end()), numbers.end());

    // All sessions are gone, and a group once seen stays counted.
    ASSERT_TRUE(_device.startedClient(personal(), UserInfo{.clientName = "A", .serviceName = "B"}).flush());
    ASSERT_TRUE(_device.connect().flush());
    EXPECT_TRUE(_device.logs(", 0(1) connections."));
}

TEST_F(SessionsTest, AClientThatReconnectsGetsASessionOfItsOwn) {
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    for (int number = 1; number <= 2; ++number) {
        Client client = _device.startedClient(plain());
        ASSERT_TRUE(client.send(event(number)));
    }
    ASSERT_TRUE(_device.waitForEvents(kOurs, 2));
    const auto records = _device.postedEvents(kOurs);
    EXPECT_NE(*records[0].string("_sessionID"), *records[1].string("_sessionID"));
    EXPECT_TRUE(_device.logs("was invalidated"));
    EXPECT_EQ(_device.daemon().errors().find("was interrupted"), std::string::npos);
}

}  // namespace
}  // namespace quorvane::test

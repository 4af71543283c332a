#include "tests/support/DaemonFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::Optional;

constexpr std::uint16_t kOurs = 12;

class SessionsTest : public testing::Test {
  protected:
    static Event event(int number) { return {.category = kOurs, .type = 3, .payload = {{{"n", number}}}}; }

    static SessionInfo plain() { return {.sessionID = 41, .clientType = 5}; }

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
    EXPECT_TRUE(_device.logs("<7>sendMessageWithDictionary: No backends available to send message"));
    EXPECT_TRUE(_device.logs("<7>flushMessages: No backends available to send message"));
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
    EXPECT_TRUE(_device.logs("was invalidated"));
    EXPECT_EQ(_device.daemon().errors().find("was interrupted"), std::string::npos);
}

TEST_F(SessionsTest, HeldEventsGoOutWithAFlushAndWithTheEndOfTheConnection) {
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    {
        Client client = _device.startedClient({.sessionID = 41, .clientType = 5, .batchEvent = true});
        EXPECT_FALSE(*client.send(event(1)));
        ASSERT_TRUE(client.sendAndForget(event(2)));
        EXPECT_TRUE(*client.flush());
        ASSERT_TRUE(_device.waitForEvents(kOurs, 2));
        for (int number = 3; number <= 20; ++number) ASSERT_TRUE(client.sendAndForget(event(number)));
    }
    ASSERT_TRUE(_device.waitForEvents(kOurs, 20));
    std::int64_t number = 0;
    for (const Dictionary& record : _device.postedEvents(kOurs)) EXPECT_EQ(record.integer("n"), ++number);
    EXPECT_EQ(number, 20);
}

}  // namespace
}  // namespace quorvane::test

#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"
#include "tests/support/OtherUser.h"

#include <unistd.h>

#include <filesystem>
#include <vector>

namespace quorvane::test {
namespace {

class InspectionTest : public testing::Test {
  protected:
    InspectionTest() {
        std::filesystem::permissions(_device.root(), std::filesystem::perms(0755));
        _device.serveStorebag(_device.httpPostSection());
        _device.start();
    }

    static std::vector<Dictionary> dictionaries(const BusReply& reply) {
        EXPECT_EQ(reply.error, "");
        std::vector<Dictionary> answer;
        ::sd_bus_message_enter_container(reply.message.get(), 'a', "a{sv}");
        while (::sd_bus_message_at_end(reply.message.get(), 0) == 0)
            if (platform::readDictionary(reply.message.get(), answer.emplace_back()) < 0) break;
        return answer;
    }

    std::vector<Dictionary> ask(const char* what) const {
        return dictionaries(BusClient(_device.socketPath()).call(kInspectionInterface, what));
    }

    DaemonFixture _device;
};

TEST_F(InspectionTest, TellsOfSessionsStorebagsAndWhatBecameOfEvents) {
    Client unknown = _device.connect();
    ASSERT_TRUE(unknown.send({.category = 12, .type = 1}));
    Client client = _device.startedClient({.sessionID = 7, .clientType = 5, .requireUserInfo = true},
                                          UserInfo{.clientName = "Mail\n"});
    ASSERT_TRUE(client.send({.category = 12, .type = 1}));
    ASSERT_TRUE(_device.waitForEvents(12, 1));
    const auto posted = [&] { return _device.statistics()->dictionary("events")->integer("posted"); };
    EXPECT_TRUE(eventually([&] { return posted() == 2; })) << "the session's start, too";

    std::vector<Dictionary> sessions;  // Those of earlier questions end a little later.
    ASSERT_TRUE(eventually([&] { return (sessions = ask("GetSessions")).size() == 3; }));
    EXPECT_FALSE(sessions[0].boolean("started"));
    EXPECT_EQ(sessions[0].integer("unserved"), 1);
    EXPECT_EQ(sessions[1].integer("sessionID"), 7);
    EXPECT_EQ(sessions[1].integer("process"), ::getpid());
    EXPECT_EQ(*sessions[1].string("clientName"), "Mail\\n");
    EXPECT_EQ(*sessions[1].string("storebagVersion"), "7-test");
    const Dictionary backend = *sessions[1].array("backends")->at(0).dictionary();
    EXPECT_EQ(*backend.string("name"), "httppost");
    EXPECT_EQ(*backend.string("state"), "enabled");
    EXPECT_EQ(*backend.string("reason"), "belowThreshold");
    EXPECT_EQ(backend.dictionary("posts")->integer("2xx"), 2);

    const auto bags = ask("GetStorebags");
    ASSERT_EQ(bags.size(), 1u);
    EXPECT_EQ(*bags[0].string("name"), "pelmark");
    EXPECT_EQ(*bags[0].string("outcome"), "received");
    EXPECT_EQ(bags[0].integer("httpStatus"), 200);
}

TEST_F(InspectionTest, UsersSeeTheirOwnSessionsAndMembersOfTheDaemonsGroupAll) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    const Client client = _device.startedClient({.sessionID = 7, .clientType = 5});
    const auto seenBy = [&](gid_t group) {
        const BusClient nobody(socketOfNobody(_device.socketPath(), group));
        return dictionaries(nobody.call(kInspectionInterface, "GetSessions")).size();
    };
    EXPECT_EQ(seenBy(kNobody), 1u);
    EXPECT_TRUE(eventually([&] { return seenBy(::getegid()) == 2; }));
    const BusClient nobody(socketOfNobody(_device.socketPath(), kNobody));
    const BusReply reply = nobody.call(kInspectionInterface, "GetStatistics");
    Dictionary statistics;
    ASSERT_GE(platform::readDictionary(reply.message.get(), statistics), 0);
    EXPECT_EQ(statistics.dictionary("events")->integer("accepted"), 0);
    EXPECT_FALSE(statistics.boolean("all"));
}

}  // namespace
}  // namespace quorvane::test

#include "tests/support/DaemonFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

class AdaptorTest : public testing::Test {
  protected:
    /// A storebag section that names the adaptor, the power log and an HTTPS post backend.
    Dictionary section() const {
        Dictionary all = _device.httpPostSection();
        all.set("ossel", Dictionary());
        all.set("joulary", Dictionary());
        return all;
    }

    void installAdaptor() const {
        const auto folder = _device.root() / "usr/lib/quorvane";
        std::filesystem::create_directories(folder);
        std::filesystem::copy_file(QUORVANE_BUNDLE_SAMPLE, folder / "OsselAdaptor.so");
    }

    /// What the adaptor was given, a line for each message.
    std::string messages() const {
        std::ifstream file(_device.root() / "var/lib/quorvane/ossel-messages.log");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static SessionInfo session(std::uint32_t clientType) {
        return {.sessionID = 41, .clientType = clientType};
    }

    static Event event(int number) { return {.category = 12, .type = 3, .payload = {{{"n", number}}}}; }

    DaemonFixture _device;
};

TEST_F(AdaptorTest, EveryEventOfASessionReachesTheAdaptor) {
    installAdaptor();
    _device.serveStorebag(section());
    _device.start();
    {
        Client client = _device.connect();
        ASSERT_TRUE(client.setSessionInfo(session(7)));
        EXPECT_THAT(*client.start(), Optional(ElementsAre("httppost", "joulary", "ossel")));
        EXPECT_THAT(*client.send(event(1)), Optional(HasSubstr("\"n\": 1")));
        EXPECT_THAT(messages(), HasSubstr(" method=12 respCode=3 {\"n\": 1}\n"));
        EXPECT_TRUE(client.send({.category = 12, .type = 4}));
        EXPECT_THAT(messages(), HasSubstr(" method=12 respCode=4 (null)\n"));
    }
    EXPECT_THAT(messages(), HasSubstr(" method=0 respCode=0 {\"AutomaticTimeSet\": true}\n"));
    EXPECT_TRUE(eventually([&] { return messages().find(" method=0 respCode=1 ") != std::string::npos; }))
        << "the session's last event";
    EXPECT_EQ(_device.daemon().errors().find("does not respond"), std::string::npos);
}

TEST_F(AdaptorTest, ManySessionsShareTheAdaptor) {
    constexpr int kSessions = 20;
    installAdaptor();
    _device.serveStorebag({{"ossel", Dictionary()}});
    _device.start();
    std::vector<std::thread> threads;
    for (int i = 0; i < kSessions; ++i)
        threads.emplace_back([&, i] {
            Client client = _device.startedClient(session(i % 2 == 0 ? 7 : 11));
            EXPECT_TRUE(client.send(event(i)));
        });
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < kSessions; ++i)
        EXPECT_THAT(messages(), HasSubstr("{\"n\": " + std::to_string(i) + "}\n"));
}

TEST_F(AdaptorTest, AMissingAdaptorCostsLogLinesAlone) {
    _device.serveStorebag(section());
    _device.start();
    Client client = _device.startedClient(session(11));
    EXPECT_TRUE(_device.logs("OsselAdaptor.so: No such file or directory"));
    EXPECT_THAT(*client.send(event(1)), Optional(HasSubstr("\"n\": 1")));
    EXPECT_TRUE(
        _device.logs("OsselBackend(sendMessage): Ossel adaptor (null) does not respond to forwarding "
                     "selector sendMessageWithMethod:respCode:dict:"));

    Client other = _device.connect();
    ASSERT_TRUE(other.setSessionInfo(session(5)));
    EXPECT_THAT(*other.start(), Optional(ElementsAre("httppost", "joulary")));
    EXPECT_TRUE(_device.logs("OsselBackend(initWithName): No matching bundle found for client type 5"));
}

TEST_F(AdaptorTest, EventsOfSessionsDoNotReachThePowerLog) {
    _device.serveStorebag({{"joulary", Dictionary()}});
    _device.start();
    Client client = _device.connect();
    ASSERT_TRUE(client.setSessionInfo(session(5)));
    EXPECT_THAT(*client.start(), Optional(ElementsAre("joulary")));
    EXPECT_FALSE(*client.send(event(1)));
    EXPECT_FALSE(*client.flush());
    EXPECT_FALSE(std::filesystem::exists(_device.root() / "var/lib/quorvane/power-log.jsonl"));
}

}  // namespace
}  // namespace quorvane::test

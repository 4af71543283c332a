#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"
#include "tests/support/OtherUser.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::test {
namespace {

constexpr std::uint16_t kCategory = 12;

/// A client that watches, and keeps what it is told of events of our category and of those without one.
class Watcher {
  public:
    Watcher(platform::UniqueDescriptor socket, const Dictionary& filter) : _client(std::move(socket)) {
        ::sd_bus_add_match(
            _client.bus(), nullptr, "type='signal',member='Event'",
            [](sd_bus_message* signal, void* watcher, sd_bus_error*) {
                Dictionary news;
                EXPECT_GE(platform::readDictionary(signal, news), 0);
                if (!news.contains("category") || news.integer("category") == kCategory)
                    static_cast<Watcher*>(watcher)->_told.push_back(std::move(news));
                return 0;
            },
            this);
        const Message call = _client.newCall(kInspectionInterface, "Monitor");
        platform::appendDictionary(call.get(), filter);
        error = _client.call(call).error;
    }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    /// Reads until that many have come; how many have come soon.
    std::size_t waitFor(std::size_t count) {
        const auto end = std::chrono::steady_clock::now() + kSoon;
        while (_told.size() < count && std::chrono::steady_clock::now() < end)
            if (::sd_bus_process(_client.bus(), nullptr) == 0) ::sd_bus_wait(_client.bus(), 100'000);
        return _told.size();
    }
    Dictionary next() {
        const std::size_t at = _read++;
        return waitFor(_read) > at ? _told[at] : Dictionary();
    }
    /// How many have come when the daemon has answered another call.
    std::size_t soFar() {
        _client.call(kInspectionInterface, "GetStorebags");
        while (::sd_bus_process(_client.bus(), nullptr) > 0) continue;
        return _told.size();
    }

    std::string error;

  private:
    BusClient _client;
    std::vector<Dictionary> _told;
    std::size_t _read = 0;
};

class MonitorTest : public testing::Test {
  protected:
    MonitorTest() {
        std::filesystem::permissions(_device.root(), std::filesystem::perms(0755));
        _device.serveStorebag(_device.httpPostSection());
        _device.start();
    }

    Watcher watch(const Dictionary& filter = {}) const {
        return Watcher(connectSocket(_device.socketPath()), filter);
    }
    Client client(const char* name = "Mail", bool batches = false) {
        return _device.startedClient(
            {.sessionID = 7, .clientType = 5, .batchEvent = batches, .requireUserInfo = true},
            UserInfo{.clientName = name, .serviceName = "Sync"});
    }
    static Event event(std::uint16_t type = 3) { return {.category = kCategory, .type = type}; }

    DaemonFixture _device;
};

TEST_F(MonitorTest, TellsWhoseEventsWerePostedRefusedAndDropped) {
    Watcher watcher = watch();
    Client mail = client();
    ASSERT_TRUE(mail.send(event()));
    EXPECT_EQ(*watcher.next().array("numbers"), Array{Value(std::uint64_t{1})}) << "the session's start";
    Dictionary news = watcher.next();
    EXPECT_EQ(*news.string("fate"), "posted");
    EXPECT_EQ(news.integer("status"), 200);
    EXPECT_TRUE(news.contains("milliseconds"));
    EXPECT_EQ(*news.string("backend"), "httppost");
    EXPECT_EQ(*news.array("numbers"), Array{Value(std::uint64_t{2})});
    EXPECT_EQ(news.integer("count"), 1);
    EXPECT_EQ(news.integer("type"), 3);
    EXPECT_EQ(news.integer("process"), ::getpid());
    EXPECT_EQ(news.integer("sessionID"), 7);
    EXPECT_EQ(*news.string("clientName"), "Mail");
    EXPECT_EQ(*news.string("serviceName"), "Sync");

    _device.answerPosts([](const ServerRequest&) { return ServerAnswer{503, {}, {}}; });
    ASSERT_TRUE(mail.send(event()));
    news = watcher.next();
    EXPECT_EQ(*news.string("fate"), "refused");
    EXPECT_EQ(news.integer("status"), 503);
    ASSERT_TRUE(eventually([&] { return *mail.send(event()) == std::nullopt; }));
    do news = watcher.next();
    while (*news.string("fate") == "refused");
    EXPECT_EQ(*news.string("fate"), "dropped");
    EXPECT_EQ(*news.string("reason"), "stoppedByServer");
    EXPECT_NE(news.string("reasonText")->find("(5xx)"), std::string::npos);
}

TEST_F(MonitorTest, TellsTwiceOfAnEventThatIsHeldAndOfFailures) {
    Watcher watcher = watch({{"clientName", "mail"}, {"process", ::getpid()}});
    const Client other = client("Maps");
    Client mail = client("Mail", true);
    ASSERT_TRUE(mail.send(event()));
    ASSERT_TRUE(mail.send(event(4)));
    EXPECT_EQ(watcher.next().integer("held"), 2) << "with the session's start";
    Dictionary news = watcher.next();
    EXPECT_EQ(*news.string("fate"), "held");
    EXPECT_EQ(news.integer("held"), 3);
    ASSERT_TRUE(mail.flush());
    news = watcher.next();
    EXPECT_EQ(*news.string("fate"), "posted");
    EXPECT_EQ(news.integer("count"), 3);
    EXPECT_EQ(news.array("numbers")->size(), 3u);

    _device.serveStorebag(_device.httpPostSection({{"post_url", "http://127.0.0.1:1/"}}), "stremcore");
    Client unheard = _device.startedClient({.sessionID = 8, .clientType = 6}, UserInfo{.clientName = "Mail"});
    ASSERT_TRUE(unheard.send(event()));
    do news = watcher.next();
    while (news.contains("status"));
    EXPECT_EQ(*news.string("fate"), "failed");
    EXPECT_EQ(*news.string("reason"), "noAnswer");
    EXPECT_FALSE(news.string("reasonText")->empty());
}

TEST_F(MonitorTest, TellsWhyAnEventReachesNoBackend) {
    Watcher watcher = watch();
    _device.serveStorebag(Dictionary{}, "stremcore");
    Client unstarted = _device.connect();
    ASSERT_TRUE(unstarted.send(event()));
    EXPECT_EQ(*watcher.next().string("reason"), "notStarted");
    Client unknown = _device.startedClient({.sessionID = 8, .clientType = 4});
    ASSERT_TRUE(unknown.send(event()));
    Dictionary news = watcher.next();
    EXPECT_EQ(*news.string("fate"), "dropped");
    EXPECT_EQ(*news.string("reason"), "noStorebag");
    EXPECT_FALSE(news.contains("backend"));
    Client unserved = _device.startedClient({.sessionID = 8, .clientType = 6});
    ASSERT_TRUE(unserved.send(event()));
    EXPECT_EQ(*watcher.next().string("reason"), "noBackends");

    const BusClient plain(_device.socketPath());
    const Message call = plain.newCall(kClientSessionInterface, "SendMessageWithSessionInfo");
    ::sd_bus_message_append(call.get(), "a{sv}aa{sv}qqaa{sv}", 0, 0, 12, 3, 0);
    ::sd_bus_send(plain.bus(), call.get(), nullptr);  // Never answered.
    EXPECT_TRUE(
        eventually([&] { return ::sd_bus_process(plain.bus(), nullptr) >= 0 && watcher.soFar() == 4; }));
    EXPECT_EQ(*watcher.next().string("reason"), "incomplete");
}

TEST_F(MonitorTest, RefusesAFilterThatItDoesNotUnderstandAndTooManyMonitors) {
    for (const Dictionary& wrong : {Dictionary{{"processId", 1}}, Dictionary{{"process", "1"}},
                                    Dictionary{{"process", true}}, Dictionary{{"clientName", 1}}})
        EXPECT_EQ(watch(wrong).error, SD_BUS_ERROR_INVALID_ARGS) << wrong.description();
    std::vector<std::unique_ptr<Watcher>> many;
    for (int n = 0; n < 16; ++n) {
        many.push_back(std::make_unique<Watcher>(connectSocket(_device.socketPath()), Dictionary()));
        EXPECT_EQ(many.back()->error, "");
    }
    EXPECT_EQ(watch().error, SD_BUS_ERROR_LIMITS_EXCEEDED);
    many.clear();
    EXPECT_TRUE(eventually([&] { return watch().error.empty(); }));
}

TEST_F(MonitorTest, OthersAreToldOfTheirOwnEventsOnly) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    Watcher nobody(socketOfNobody(_device.socketPath(), kNobody), {});
    Watcher member(socketOfNobody(_device.socketPath(), ::getegid()), {});
    Client mail = client();
    ASSERT_TRUE(mail.send(event()));
    EXPECT_EQ(member.waitFor(1), 1u);
    EXPECT_EQ(nobody.soFar(), 0u);
    const BusClient own(socketOfNobody(_device.socketPath(), kNobody));
    own.call(kClientSessionInterface, "SendMessageWithCategory", "qqaa{sv}", 12, 3, 0);
    EXPECT_EQ(nobody.waitFor(1), 1u);
}

TEST_F(MonitorTest, OneThatDoesNotReadIsCutOffAndDisturbsNobody) {
    Watcher attentive = watch({{"process", ::getpid()}});
    const BusClient deaf(_device.socketPath());
    const Message call = deaf.newCall(kInspectionInterface, "Monitor");
    platform::appendDictionary(call.get(), {});
    ASSERT_EQ(deaf.call(call).error, "");
    const auto sessions = [&] { return _device.statistics()->integer("sessions"); };
    const auto before = sessions();

    // Events that reach no backend are told soonest.
    Client busy = _device.connect();
    std::size_t sent = 0;
    ASSERT_TRUE(eventually([&] {
        for (int n = 0; n < 500; ++n) EXPECT_TRUE(busy.send(event()));
        sent += 500;
        EXPECT_EQ(attentive.waitFor(sent), sent);
        return sessions() == before;  // One less, with the sender one more.
    }));
    EXPECT_GT(sent, 2000u) << "a bound that is too tight";
}

}  // namespace
}  // namespace quorvane::test

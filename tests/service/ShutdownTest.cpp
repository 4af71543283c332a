#include "tests/support/DaemonFixture.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

namespace quorvane::test {
namespace {

constexpr std::uint16_t kOurs = 12;

class ShutdownTest : public testing::Test {
  protected:
    void SetUp() override { _device.serveStorebag(_device.httpPostSection()); }

    Client clientWithHeldEvents() {
        Client client = _device.startedClient({.sessionID = 1, .clientType = 5, .batchEvent = true});
        for (int number = 0; number < 3; ++number) EXPECT_FALSE(*client.send(numbered(number)));
        return client;
    }

    static Event numbered(int number) { return {.category = kOurs, .type = 1, .payload = {{{"n", number}}}}; }

    DaemonFixture _device;
};

TEST_F(ShutdownTest, HeldEventsGoOutWithAFlushAndWithTheEndOfTheConnection) {
    _device.start();
    {
        Client client = clientWithHeldEvents();
        EXPECT_TRUE(*client.flush());
        ASSERT_TRUE(_device.waitForEvents(kOurs, 3));
        for (int number = 3; number < 20; ++number) ASSERT_TRUE(client.sendAndForget(numbered(number)));
    }
    ASSERT_TRUE(_device.waitForEvents(kOurs, 20));
    std::int64_t number = 0;
    for (const Dictionary& record : _device.postedEvents(kOurs)) EXPECT_EQ(record.integer("n"), number++);
    EXPECT_EQ(number, 20);

    ASSERT_TRUE(_device.waitForEvents(0, 2));
    const Dictionary end = _device.postedEvents(0)[1];
    EXPECT_EQ(end.integer("_status"), 1);
    ASSERT_TRUE(end.contains("StorebagVersion"));
    EXPECT_EQ(*end.string("StorebagVersion"), "7-test");
    EXPECT_TRUE(_device.logs("was invalidated"));
    EXPECT_EQ(_device.daemon().errors().find("was interrupted"), std::string::npos);
}

TEST_F(ShutdownTest, ReloadingEndsNothingAndTrustConsentAndTheBoundsOfUsersAreReadAnew) {
    const HttpsServer stranger(_device.root() / "stranger");
    _device.serveStorebag(_device.httpPostSection({{"post_url", stranger.url("/post")}}));
    _device.start();
    Client client = _device.startedClient({.sessionID = 1, .clientType = 5});
    EXPECT_TRUE(*client.send(numbered(0))) << "with consent the answer tells what is posted";
    EXPECT_TRUE(_device.logs("(postJsonMessage): post error: "));
    EXPECT_EQ(stranger.requestCount(), 0u);

    std::filesystem::copy(_device.root() / "stranger/etc/quorvane/trust",
                          _device.root() / "etc/quorvane/trust");
    _device.write("etc/quorvane/consent.toml", "diagnostics_submission = false\n");
    std::ofstream(_device.root() / "etc/quorvane/defaults/com.velmora.quorvane.toml", std::ios::app)
        << "\nconnections_per_user = 1\n";
    _device.daemon().signal(SIGHUP);
    EXPECT_TRUE(_device.logs("main: Told to reload, the bounds of users are read anew."));
    EXPECT_TRUE(*client.send(numbered(1)));
    EXPECT_TRUE(stranger.waitForRequests(1));
    EXPECT_TRUE(client.start());
    EXPECT_FALSE(*client.send(numbered(2)));
    EXPECT_FALSE(Client::connect({.socketPath = _device.socketPath()}));
    EXPECT_TRUE(_device.logs("has 1 connections, no more are taken"));
    EXPECT_TRUE(client.flush());
}

TEST_F(ShutdownTest, WhatIsHeldAndWhatAClientThatHasLeftSentIsDeliveredBeforeTheDaemonEnds) {
    std::promise<void> posting;
    _device.answerPosts([&, told = std::make_shared<std::atomic<bool>>(false)](const ServerRequest&) {
        if (!told->exchange(true)) posting.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return ServerAnswer();
    });
    _device.start();
    const Client first = clientWithHeldEvents();
    const Client second = clientWithHeldEvents();
    clientWithHeldEvents();
    posting.get_future().wait();
    EXPECT_EQ(_device.daemon().terminate(), 0);
    EXPECT_EQ(_device.postedEvents(kOurs).size(), 9u);
    EXPECT_EQ(_device.postedEvents(0).size(), 6u) << "three sessions' starts and ends";
    EXPECT_FALSE(std::filesystem::exists(_device.socketPath()));
}

TEST_F(ShutdownTest, ADownloadThatStallsCostsOtherSessionsNothing) {
    std::promise<void> over;
    _device.start();
    const Client client = clientWithHeldEvents();
    _device.server().setHandler([isOver = over.get_future().share()](const ServerRequest& request) {
        if (request.target.starts_with("/bags/")) isOver.wait();
        return ServerAnswer();
    });
    const std::size_t before = _device.server().requestCount();
    auto starting = std::async(std::launch::async, [&] {
        Client other = _device.connect();
        return other.setSessionInfo({.sessionID = 2, .clientType = 6}) && other.start();
    });
    ASSERT_TRUE(_device.server().waitForRequests(before + 1));
    EXPECT_EQ(_device.daemon().terminate(), 0);
    EXPECT_EQ(_device.daemon().errors().find("did not end in time"), std::string::npos);
    EXPECT_EQ(_device.postedEvents(kOurs).size(), 3u);
    over.set_value();
    starting.get();
}

TEST_F(ShutdownTest, ASecondSignalCutsTheWaitForAStalledServerShort) {
    std::promise<void> over;
    const auto isOver = over.get_future().share();
    _device.answerPosts([isOver](const ServerRequest&) {
        isOver.wait();
        return ServerAnswer();
    });
    _device.start();
    const Client client = clientWithHeldEvents();
    _device.daemon().signal(SIGTERM);
    ASSERT_TRUE(_device.logs("dealloc: QuorvanedSession dealloc: 1"));
    EXPECT_TRUE(_device.daemon().running());
    EXPECT_EQ(_device.daemon().terminate(), 0);
    EXPECT_EQ(_device.daemon().errors().find("did not end in time"), std::string::npos);
    over.set_value();
}

TEST_F(ShutdownTest, ARefusedSandboxProfileEndsTheDaemonBeforeItListens) {
    const auto profile = _device.root() / "usr/share/quorvane/sandbox/com.velmora.quorvaned.toml";
    std::filesystem::remove(profile);
    ChildProcess& daemon = _device.launch();
    EXPECT_EQ(daemon.wait(), 255);
    EXPECT_THAT(
        daemon.errors(),
        testing::ContainsRegex("^<3>2[-0-9]{9}T[:0-9]{8}\\.[0-9]{6}Z \\[quorvaned\\] main: sandbox_init"));
    EXPECT_THAT(daemon.errors(), testing::HasSubstr(profile.string()));
    EXPECT_EQ(daemon.errors().find('\n'), daemon.errors().size() - 1) << "it is the only line";
    EXPECT_FALSE(std::filesystem::exists(_device.socketPath()));
}

TEST_F(ShutdownTest, OnlyOneDaemonListensInARootAndAKilledOnesSocketIsTakenOver) {
    _device.start();
    const ProgramResult second = runProgram(
        {std::filesystem::read_symlink("/proc/" + std::to_string(_device.daemon().pid()) + "/exe")},
        {{"QUORVANE_ROOT", _device.root().string()}, {"QUORVANE_LOG", "stderr"}});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.errors, testing::HasSubstr("main: The listener fails: "));
    EXPECT_TRUE(_device.connect().flush()) << "the first goes on";

    _device.daemon().signal(SIGKILL);
    EXPECT_EQ(_device.daemon().wait(), -SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(_device.socketPath()));
    _device.start();
    EXPECT_TRUE(_device.connect().flush());
}

}  // namespace
}  // namespace quorvane::test

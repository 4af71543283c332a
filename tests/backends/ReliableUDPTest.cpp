#include "backends/DashboardBackend.h"
#include "tests/backends/BackendFixture.h"
#include "tests/support/UdpPeer.h"
#include "tests/support/Within.h"

namespace quorvane {
namespace {

using std::chrono::milliseconds;
using test::within;
using testing::ElementsAre;

constexpr std::chrono::seconds kSoon{20};

/// The timer's own period is an hour here: the tests tick.
class ReliableUDPTest : public BackendFixture {
  protected:
    static std::shared_ptr<DashboardBackend> backend(std::uint16_t port,
                                                     std::optional<int> reliable = 3'600'000) {
        Dictionary profile{{"ip", "127.0.0.1"}, {"port", port}};
        if (reliable) profile.set("reliable", *reliable);
        return DashboardBackend::initWithName("dashboard", shared(std::move(profile)), "F");
    }

    static void sendEvent(DashboardBackend& backend, std::uint16_t eventID) {
        const Dictionary message{{"n", eventID}};
        backend.sendMessage(&message, {12, 0}, 1, 0, EventID{eventID});
        backend.networkProcQueue().perform([] {});
    }

    static void tick(DashboardBackend& backend) {
        backend.networkProcQueue().perform([&] { backend.myPeriodicTask(); });
    }

    /// The backend's answer on its queue.
    template <typename Question>
    static auto ask(DashboardBackend& backend, Question&& question) {
        decltype(question(backend)) answer;
        backend.networkProcQueue().perform([&] { answer = question(backend); });
        return answer;
    }
    static std::vector<int> waiting(DashboardBackend& backend) {
        return ask(backend, [](DashboardBackend& asked) {
            std::vector<int> events;
            for (const UDPPacketToSend& packet : asked.messageQueue()) events.push_back(packet.eventNumber);
            return events;
        });
    }
    static std::uint64_t givenUp(DashboardBackend& backend) {
        return ask(backend, [](auto& asked) { return asked.givenUp(); });
    }
    static int socketOf(DashboardBackend& backend) {
        return ask(backend, [](auto& asked) { return asked.socketDescriptor(); });
    }
    static bool isClosed(DashboardBackend& backend) { return socketOf(backend) < 0; }

    test::UdpPeer _collector;
};

TEST_F(ReliableUDPTest, SendsFiveTimesInAllAndGivesUpOnTick20) {
    const auto sender = backend(_collector.port());
    sendEvent(*sender, 1);
    const auto first = _collector.receive();
    std::vector<int> retransmissions;
    for (int at = 1; at < 20; ++at) {
        tick(*sender);
        for (auto again = _collector.receive(milliseconds(0)); again;
             again = _collector.receive(milliseconds(0))) {
            EXPECT_EQ(again, first);
            retransmissions.push_back(at);
        }
        EXPECT_THAT(waiting(*sender), ElementsAre(1)) << at;
    }
    EXPECT_THAT(retransmissions, ElementsAre(2, 5, 10, 19));
    tick(*sender);
    EXPECT_THAT(waiting(*sender), ElementsAre());
    EXPECT_EQ(givenUp(*sender), 1u);
    EXPECT_EQ(_collector.receiveAll(), 0);
}

// Replies are handled one after another, so what came before the last one has been handled with it.

TEST_F(ReliableUDPTest, AnAcknowledgementEndsTheOldestOfItsNumberAndNoOther) {
    const auto sender = backend(_collector.port());
    for (const std::uint16_t event : {7, 8, 7, 5}) sendEvent(*sender, event);
    _collector.receiveAll();
    for (const std::uint16_t event : {9, 7}) _collector.acknowledge(event);
    EXPECT_TRUE(within(kSoon, [&] { return waiting(*sender) == std::vector{8, 7, 5}; }));
    for (const std::uint16_t event : {8, 8, 5}) _collector.acknowledge(event);
    EXPECT_TRUE(within(kSoon, [&] { return waiting(*sender) == std::vector{7}; }));
    _collector.acknowledge(7);
    EXPECT_TRUE(within(kSoon, [&] { return waiting(*sender).empty(); }));
    EXPECT_EQ(givenUp(*sender), 0u);

    // Replies too short to name an event.
    for (const std::uint16_t event : {0, 1, 2}) sendEvent(*sender, event);
    for (const std::size_t size : {0, 1, 61}) _collector.send(Data(size));
    _collector.acknowledge(1);
    EXPECT_TRUE(within(kSoon, [&] { return waiting(*sender) == std::vector{0, 2}; }));
    _collector.send(Data(62));
    EXPECT_TRUE(within(kSoon, [&] { return waiting(*sender) == std::vector{2}; }));
    Data long_(1'500);
    long_[61] = 2;
    _collector.send(long_);
    EXPECT_TRUE(within(kSoon, [&] { return waiting(*sender).empty(); }));
}

TEST_F(ReliableUDPTest, TheFiftyFirstPushesTheOldestOut) {
    const auto sender = backend(_collector.port());
    for (std::uint16_t event = 1; event <= 51; ++event) sendEvent(*sender, event);
    const auto events = waiting(*sender);
    EXPECT_EQ(events.size(), 50u);
    EXPECT_EQ(events.front(), 2);
    EXPECT_EQ(events.back(), 51);
    EXPECT_EQ(givenUp(*sender), 1u);
}

TEST_F(ReliableUDPTest, GivesUpWhereNobodyListens) {
    _collector.refuse();
    const auto sender = backend(_collector.port());
    sendEvent(*sender, 1);
    int ticks = 0;
    for (; !waiting(*sender).empty() && ticks < 40; ++ticks) tick(*sender);
    // A refusal that is told to a send costs that datagram one more tick.
    EXPECT_GE(ticks, 20);
    EXPECT_LE(ticks, 24);
}

TEST_F(ReliableUDPTest, PlainDeliveryKeepsOnlyWhatCouldNotBeSent) {
    const auto sender = backend(_collector.port(), std::nullopt);
    sendEvent(*sender, 1);
    EXPECT_THAT(waiting(*sender), ElementsAre());
    EXPECT_EQ(_collector.receiveAll(), 1);

    // Disconnected, the socket can send nothing.
    sockaddr_in address{};
    const int descriptor = socketOf(*sender);
    socklen_t size = sizeof address;
    ASSERT_EQ(::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size), 0);
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    ASSERT_EQ(::connect(descriptor, &nobody, sizeof nobody), 0);
    sendEvent(*sender, 2);
    sendEvent(*sender, 3);
    for (int at = 0; at < 30; ++at) tick(*sender);
    EXPECT_THAT(waiting(*sender), ElementsAre(2, 3));

    ASSERT_EQ(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), size), 0);
    tick(*sender);
    EXPECT_THAT(waiting(*sender), ElementsAre());
    EXPECT_EQ(_collector.receiveAll(), 2);
}

TEST_F(ReliableUDPTest, CleansUpAtOnceWhenNothingWaitsAndNeverAnew) {
    for (const std::optional<int> reliable : {std::optional(3'600'000), std::optional<int>()}) {
        auto sender = backend(_collector.port(), reliable);
        for (int times = 0; times < 2; ++times) sender->cleanup();
        EXPECT_TRUE(isClosed(*sender));
        sendEvent(*sender, 1);
        EXPECT_THAT(waiting(*sender), ElementsAre(1)) << "without a socket, the send failed";
        sender->cleanup();
        const std::weak_ptr<DashboardBackend> weak = std::exchange(sender, nullptr);
        EXPECT_TRUE(within(kSoon, [&] { return weak.expired(); }));
    }
}

TEST_F(ReliableUDPTest, CleansUpWhenTheLastDatagramIsGone) {
    const auto sender = backend(_collector.port());
    sendEvent(*sender, 1);
    sender->cleanup();
    for (int at = 1; at <= 19; ++at) tick(*sender);
    EXPECT_FALSE(isClosed(*sender));
    tick(*sender);
    EXPECT_TRUE(isClosed(*sender));
    EXPECT_EQ(logged("<7>DashboardBackend(myPeriodicTask): clean up at myPeriodicTask."), 1u);
    sender->networkProcQueue().perform([&] { sender->cleanupSources(); });
    EXPECT_TRUE(isClosed(*sender));
}

TEST_F(ReliableUDPTest, LivesOnForItsDatagramsAfterCleanupAndThenEndsAtTheLatestByItsLastResort) {
    for (const bool isAcknowledged : {true, false}) {
        auto sender = backend(_collector.port(), isAcknowledged ? 150 : 3'600'000);
        sendEvent(*sender, 1);
        sender->cleanup();
        if (!isAcknowledged) tick(*sender);
        const std::weak_ptr<DashboardBackend> weak = std::exchange(sender, nullptr);
        for (int times = isAcknowledged ? 2 : 1; times > 0; --times) ASSERT_TRUE(_collector.receive());
        EXPECT_FALSE(weak.expired());
        if (isAcknowledged) _collector.acknowledge(1);
        EXPECT_TRUE(within(kSoon, [&] { return weak.expired(); }));
    }
}

TEST_F(ReliableUDPTest, EndsOnItsQueueThoughTimerAndRepliesStillCome) {
    for (int round = 0; round < 50; ++round) {
        auto sender = backend(_collector.port(), 1);
        const auto queue = sender->networkProcQueue();
        sendEvent(*sender, 1);
        _collector.receive();
        _collector.acknowledge(1);
        const std::weak_ptr<DashboardBackend> weak = std::exchange(sender, nullptr);
        queue.perform([&] { EXPECT_TRUE(weak.expired()); });
    }
}

}  // namespace
}  // namespace quorvane

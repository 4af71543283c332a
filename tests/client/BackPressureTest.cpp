#include "platform/bus/BusValue.h"
#include "tests/client/ClientFixture.h"

#include <atomic>

namespace quorvane::test {
namespace {

using std::chrono::milliseconds;

Event numbered(unsigned number) {
    return {
        .category = 1, .type = 2, .payload = Dictionary{{"number", number}, {"text", std::string(200, 'x')}}};
}

/// Counts the numbered events and notes whether one came out of turn.
class CountingPeer {
  public:
    CountingPeer() : peer([this](sd_bus_message* message) { return take(message); }) {}

    std::atomic<unsigned> count = 0;
    std::atomic<bool> inOrder = true;
    BusPeer peer;

  private:
    int take(sd_bus_message* message) {
        if (std::strcmp(::sd_bus_message_get_member(message), "SendMessageWithDictionary") == 0) {
            Dictionary sent;
            if (platform::readDictionary(message, sent) < 0) return -EBADMSG;
            const Dictionary* payload = sent.dictionary("Payload");
            if (payload == nullptr || payload->unsignedInteger("number") != count) inOrder = false;
            ++count;
        }
        return ::sd_bus_reply_method_return(message, "as", 0);
    }
};

TEST(BackPressure, ADaemonThatDoesNotReadSlowsTheSender) {
    CountingPeer counting;
    Client client = connectTo(counting.peer);
    counting.peer.setPaused(true);

    constexpr unsigned kEvents = 20'000;
    std::atomic<unsigned> sent = 0;
    std::thread sender([&] {
        for (unsigned number = 0; number < kEvents; ++number) {
            ASSERT_TRUE(client.sendAndForget(numbered(number)));
            ++sent;
        }
    });
    // The sender stands when its count no longer moves.
    unsigned seen = 0;
    ASSERT_TRUE(eventually([&] {
        std::this_thread::sleep_for(milliseconds(100));
        return std::exchange(seen, sent.load()) == sent && sent > 0;
    }));
    EXPECT_LT(seen, kEvents / 2);
    EXPECT_EQ(client.trySend(numbered(0)).error().code, ErrorCode::WouldBlock);
    // A call with a time limit does not stand for ever, one in the way of the other threads neither.
    EXPECT_EQ(client.flush(milliseconds(20)).error().code, ErrorCode::TimedOut);

    counting.peer.setPaused(false);
    sender.join();
    EXPECT_TRUE(client.trySend(numbered(kEvents)));
    EXPECT_TRUE(client.flush());
    EXPECT_EQ(counting.count, kEvents + 1);
    EXPECT_TRUE(counting.inOrder);
}

TEST(BackPressure, DestructionLetsTheDaemonTakeWhatWasSentForAWhile) {
    CountingPeer counting;
    constexpr unsigned kEvents = 5'000;
    {
        Client client = connectTo(counting.peer);
        for (unsigned number = 0; number < kEvents; ++number) {
            // Answers that nobody takes any more must not keep later events from arriving.
            if (number % 16 == 0)
                ASSERT_TRUE(client.sendAsync(numbered(number), nullptr));
            else
                ASSERT_TRUE(client.sendAndForget(numbered(number)));
        }
    }
    EXPECT_TRUE(eventually([&] { return counting.count == kEvents; }));
    EXPECT_TRUE(counting.inOrder);

    // One that does not take it is not waited for for ever.
    const auto start = std::chrono::steady_clock::now();
    {
        Client client = connectTo(counting.peer, {.closeTimeout = milliseconds(50)});
        counting.peer.setPaused(true);
        const Event large{.payload = Dictionary{{"text", std::string(100'000, 'x')}}};
        while (client.sendAsync(large, nullptr, milliseconds(20))) {
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

TEST(BackPressure, UnansweredCallsAreBounded) {
    std::atomic<unsigned> taken = 0;
    std::vector<sd_bus_message*> held;
    BusPeer peer([&](sd_bus_message* message) {
        ++taken;
        held.push_back(::sd_bus_message_ref(message));
        return 1;
    });
    std::atomic<unsigned> answered = 0;
    constexpr unsigned kCalls = 3'000;
    std::atomic<unsigned> sent = 0;
    Client client = connectTo(peer);
    std::thread sender([&] {
        for (unsigned number = 0; number < kCalls; ++number) {
            ASSERT_TRUE(client.sendAsync(numbered(number), [&](const Result<Answer>&) { ++answered; }));
            ++sent;
        }
    });
    EXPECT_TRUE(eventually([&] { return taken == 1024 && sent == 1024; }));
    EXPECT_TRUE(eventually([&] {
        peer.run([&](sd_bus*) {
            for (sd_bus_message* message : held) {
                ::sd_bus_reply_method_return(message, "as", 0);
                ::sd_bus_message_unref(message);
            }
            held.clear();
        });
        return answered == kCalls;
    }));
    sender.join();
}

TEST(BackPressure, ManyThreadsShareOneClient) {
    std::atomic<unsigned> taken = 0;
    BusPeer peer([&](sd_bus_message* message) {
        ++taken;
        return ::sd_bus_reply_method_return(message, "as", 1, "ok");
    });
    std::atomic<unsigned> completed = 0;
    constexpr unsigned kThreads = 8;
    constexpr unsigned kRounds = 200;
    {
        Client client = connectTo(peer);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < kThreads; ++i)
            threads.emplace_back([&] {
                for (unsigned round = 0; round < kRounds; ++round) {
                    EXPECT_TRUE(client.sendAndForget(numbered(round)));
                    EXPECT_TRUE(client.sendAsync(numbered(round), [&](const Result<Answer>& answer) {
                        if (answer && *answer == "ok") ++completed;
                    }));
                    EXPECT_EQ(*client.send(numbered(round)), "ok");
                }
            });
        for (std::thread& thread : threads) thread.join();
        EXPECT_TRUE(eventually([&] { return completed == kThreads * kRounds; }));
    }
    EXPECT_EQ(taken, 3 * kThreads * kRounds);
}

}  // namespace
}  // namespace quorvane::test

#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "tests/client/ClientFixture.h"

#include <atomic>
#include <deque>

namespace quorvane::test {
namespace {

using std::chrono::milliseconds;

/// Makes the client an aggregating one, whose events go to the function.
void aggregate(Client& client, std::function<void(const AggregatedEvent&)> event,
               std::function<void(const SessionInfo&)> ended = {}) {
    ASSERT_TRUE(client.setSessionInfo({}, std::nullopt, {}, {std::move(event), std::move(ended)}));
}

/// An executor whose functions the test runs.
class Loop {
  public:
    Executor executor() {
        return [this](std::function<void()> function) {
            const std::lock_guard lock(_mutex);
            _waiting.push_back(std::move(function));
        };
    }

    std::size_t waiting() {
        const std::lock_guard lock(_mutex);
        return _waiting.size();
    }

    /// Runs the next function, if there is one.
    void runNext() {
        std::function<void()> next;
        {
            const std::lock_guard lock(_mutex);
            if (_waiting.empty()) return;
            next = std::move(_waiting.front());
            _waiting.pop_front();
        }
        next();
    }

  private:
    std::mutex _mutex;
    std::deque<std::function<void()>> _waiting;
};

/// Sends one event to the client as the daemon does.
void relay(sd_bus* bus, const Dictionary* payload, double timestamp = 1, std::uint16_t category = 1,
           std::uint16_t type = 1) {
    sd_bus_message* message = nullptr;
    ASSERT_GE(::sd_bus_message_new_method_call(bus, &message, nullptr, kQuorvaneObjectPath,
                                               kClientSessionReplyInterface, "SendMessageToClient"),
              0);
    platform::appendDictionary(message, {{"SessionID", 77u}, {"ClientType", 5u}, {"BatchEvent", true}});
    ::sd_bus_message_append(message, "dqq", timestamp, category, type);
    platform::appendOptionalDictionary(message, payload);
    ::sd_bus_message_set_expect_reply(message, 0);
    EXPECT_GE(::sd_bus_send(bus, message, nullptr), 0);
    ::sd_bus_message_unref(message);
}

class CallbackQueue : public testing::Test {
  protected:
    BusPeer peer{answerNil};
};

TEST_F(CallbackQueue, EventsAndTheirEndReachTheBlock) {
    std::vector<AggregatedEvent> events;
    std::promise<SessionInfo> ended;
    Client client = connectTo(peer);
    aggregate(
        client, [&](const AggregatedEvent& event) { events.push_back(event); },
        [&](const SessionInfo& info) { ended.set_value(info); });
    peer.run([](sd_bus* bus) {
        relay(bus, nullptr, 1'700'000'000.25, 65535, 7);
        const Dictionary empty;
        relay(bus, &empty, 0, 0, 0);  // An event: the end has no payload.
        relay(bus, nullptr, 0, 0, 0);
    });
    EXPECT_EQ(ended.get_future().get().sessionID, 77u);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].sessionInfo.clientType, 5u);
    EXPECT_TRUE(events[0].sessionInfo.batchEvent);
    EXPECT_EQ(events[0].timestamp, 1'700'000'000.25);
    EXPECT_EQ(events[0].category, 65535);
    EXPECT_EQ(events[0].payload, std::nullopt);
    EXPECT_EQ(events[1].payload, Dictionary{});
}

TEST_F(CallbackQueue, CallbacksRunWhereTheCallerWantsThem) {
    Loop loop;
    const auto runLoop = [&](const std::function<bool()>& done) {
        return eventually([&] {
            loop.runNext();
            return done();
        });
    };
    int events = 0;
    int completions = 0;
    bool lost = false;
    const auto here = std::this_thread::get_id();
    Client client =
        connectTo(peer, {.executor = loop.executor(), .disconnected = [&](const Error&) { lost = true; }});
    aggregate(client, [&](const AggregatedEvent&) {
        EXPECT_EQ(std::this_thread::get_id(), here);
        ++events;
    });
    ASSERT_TRUE(client.sendAsync({}, [&](const Result<Answer>& answer) {
        EXPECT_TRUE(answer);
        ++completions;
    }));
    peer.run([](sd_bus* bus) { relay(bus, nullptr); });
    EXPECT_TRUE(runLoop([&] { return events == 1 && completions == 1; }));
    peer.disconnect();
    EXPECT_TRUE(runLoop([&] { return lost; }));
}

TEST_F(CallbackQueue, ACallbackMayCallTheClient) {
    Client client = connectTo(peer);
    std::promise<bool> answered;
    aggregate(client, [&](const AggregatedEvent&) {
        const bool sent = static_cast<bool>(client.sendAndForget({}));
        answered.set_value(sent && client.send({}));
    });
    peer.run([](sd_bus* bus) { relay(bus, nullptr); });
    EXPECT_TRUE(answered.get_future().get());
}

TEST_F(CallbackQueue, DestructionWaitsForTheRunningCallbackAndDropsTheRest) {
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
    std::promise<void> running;
    {
        Client client = connectTo(peer);
        aggregate(client, [&](const AggregatedEvent&) {
            if (++begun == 1) running.set_value();
            std::this_thread::sleep_for(milliseconds(50));
            ++ended;
        });
        peer.run([](sd_bus* bus) {
            for (int i = 0; i < 1000; ++i) relay(bus, nullptr);
        });
        running.get_future().wait();
    }
    EXPECT_LT(begun, 1000);
    EXPECT_EQ(begun, ended);
}

TEST_F(CallbackQueue, ACallbackMayDestroyItsClient) {
    auto client = std::make_shared<std::unique_ptr<Client>>(std::make_unique<Client>(connectTo(peer)));
    std::promise<void> destroyed;
    ASSERT_TRUE((*client)->sendAsync({}, [&, client](const Result<Answer>&) {
        client->reset();
        destroyed.set_value();
    }));
    destroyed.get_future().wait();

    // Also one inside another.
    Loop loop;
    std::optional<Client> outer = connectTo(peer, {.executor = loop.executor()});
    ASSERT_TRUE(outer->sendAsync({}, [&](const Result<Answer>&) { loop.runNext(); }));
    ASSERT_TRUE(outer->sendAsync({}, [&](const Result<Answer>&) { outer.reset(); }));
    ASSERT_TRUE(eventually([&] { return loop.waiting() == 2; }));
    loop.runNext();
    EXPECT_FALSE(outer);
}

TEST_F(CallbackQueue, AnExecutorThatRunsAtOnceHasAllReadAndGetsAnErrorInsteadOfADeadlock) {
    std::atomic<unsigned> events = 0;
    Client client = connectTo(peer, {.executor = [](const std::function<void()>& function) { function(); }});
    aggregate(client, [&](const AggregatedEvent&) { ++events; });
    // Few enough messages to be read in one go hold more than the bound.
    constexpr unsigned kEvents = 100;
    const Dictionary payload{{"text", std::string(1 << 20, 'x')}};
    peer.run([&](sd_bus* bus) {
        for (unsigned i = 0; i < kEvents; ++i) relay(bus, &payload);
    });
    EXPECT_TRUE(eventually([&] { return events == kEvents; })) << events;

    std::promise<ErrorCode> code;
    ASSERT_TRUE(
        client.sendAsync({}, [&](const Result<Answer>&) { code.set_value(client.send({}).error().code); }));
    EXPECT_EQ(code.get_future().get(), ErrorCode::WouldDeadlock);
}

/// What the peer could not yet write.
std::uint64_t unwritten(BusPeer& peer) {
    std::uint64_t count = 0;
    peer.run([&](sd_bus* bus) { ::sd_bus_get_n_queued_write(bus, &count); });
    return count;
}

TEST_F(CallbackQueue, ASlowCallbackStopsTheReadingUntilItCatchesUp) {
    std::promise<void> gate;
    const auto opened = gate.get_future().share();
    std::atomic<unsigned> events = 0;
    Client client = connectTo(peer);
    aggregate(client, [&](const AggregatedEvent&) {
        opened.wait();
        ++events;
    });
    // 40 MiB is more than bound and socket buffers hold together.
    constexpr unsigned kEvents = 640;
    const Dictionary payload{{"text", std::string(64 << 10, 'x')}};
    peer.run([&](sd_bus* bus) {
        for (unsigned i = 0; i < kEvents; ++i) relay(bus, &payload);
    });
    std::uint64_t before = 0;
    ASSERT_TRUE(eventually([&] {
        std::this_thread::sleep_for(milliseconds(20));
        const std::uint64_t now = unwritten(peer);
        return std::exchange(before, now) == now;
    }));
    EXPECT_GT(before, 100u);

    // A call that waits is answered all the same: the reading goes on for it, and what goes past the bound
    // twice is dropped and counted.
    EXPECT_TRUE(client.send({}));
    EXPECT_GT(client.droppedEvents(), 100u);
    gate.set_value();
    EXPECT_TRUE(eventually([&] { return events + client.droppedEvents() == kEvents; }));

    // And it reads on.
    peer.run([&](sd_bus* bus) { relay(bus, nullptr); });
    EXPECT_TRUE(eventually([&] { return events + client.droppedEvents() == kEvents + 1; }));
}

}  // namespace
}  // namespace quorvane::test

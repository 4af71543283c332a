#include "backends/SessionLedger.h"
#include "platform/http/HttpSession.h"
#include "tests/backends/BackendFixture.h"

#include <chrono>

namespace quorvane {
namespace {

using EventBatchingTest = BackendFixture;

TEST_F(EventBatchingTest, ADisabledBackendDropsWhateverTheFlagWhichDecidesForASampledOutOne) {
    auto backend = enabledBackend();
    backend->setState(BackendState::Disabled);
    for (const unsigned flag : {0u, 1u, 2u, 3u}) EXPECT_FALSE(send(*backend, {}, 5, 0, flag));
    backend->setState(BackendState::Enabled);
    EXPECT_FALSE(backend->flushMessages());

    backend->setState(BackendState::SampledOut);
    EXPECT_FALSE(send(*backend, {{"n", 1}}));
    EXPECT_FALSE(backend->flushMessages()) << "not reporting, so the record stays";
    EXPECT_EQ(onlyEventIn(send(*backend, {{"n", 2}}, 5, 0, 1)).integer("n"), 2);
    EXPECT_EQ(backend->state(), BackendState::SampledOut);

    EXPECT_EQ(onlyEventIn(send(*backend, {{"n", 3}}, 5, 0, 2)).integer("n"), 3);
    EXPECT_EQ(backend->state(), BackendState::Enabled);
    EXPECT_EQ(logged("Forcing Flush here to keep events in order."), 1u);
    EXPECT_FALSE(backend->flushMessages()) << "the held record went out first";

    backend->setState(BackendState::SampledOut);
    backend->setBatchEvents(true);
    EXPECT_FALSE(send(*backend, {}, 5, 0, 2));
    EXPECT_EQ(eventsIn(backend->flushMessages()).size(), 1u);
}

TEST_F(EventBatchingTest, HoldsUntilRequiredUserInfoComesAndThenAddsIt) {
    auto backend = personalBackend(permissiveEntry(), nullptr);
    EXPECT_FALSE(send(*backend, {{"n", 1}, {"kind", "mine"}}));
    EXPECT_FALSE(send(*backend, {{"n", 2}, {"ClientName", "mine"}}));
    backend->setState(BackendState::Enabled);
    EXPECT_FALSE(backend->flushMessages());

    backend->setUserInfoDict(shared({{"ClientName", "Mail"}, {"kind", "user"}, {"secret", "user"}}));
    backend->updateState();
    const Array events = eventsIn(backend->flushMessages());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(*events[0].dictionary()->string("ClientName"), "Mail");
    EXPECT_EQ(*events[0].dictionary()->string("kind"), "user");
    EXPECT_FALSE(events[0].dictionary()->contains("secret")) << "user info is filtered before it is added";
    EXPECT_EQ(*events[1].dictionary()->string("ClientName"), "mine") << "its first key stands for all";
    EXPECT_FALSE(events[1].dictionary()->contains("kind"));
}

TEST_F(EventBatchingTest, TheRecordThatReachesTheThresholdIsLostWithThePostedBatch) {
    auto backend = enabledBackend();
    backend->setBatchEvents(true);
    for (int n = 0; n < 50; ++n) send(*backend, {{"n", n}}, 5);
    send(*backend, {{"n", 100}}, 6);
    EXPECT_EQ(logged("<7>HTTPSPostBackend(flushMessages): called"), 0u);

    send(*backend, {{"n", 50}}, 5);
    EXPECT_EQ(
        logged(
            "<7>HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method 5"),
        1u);
    EXPECT_FALSE(backend->flushMessages()) << "the 51st record went with the batch";

    // The lost record still counts: the 50th held one of its method is the next to force a flush.
    for (int n = 0; n < 49; ++n) send(*backend, {}, 5);
    EXPECT_EQ(logged("(flushMessages): called"), 1u);
    send(*backend, {}, 5);
    EXPECT_EQ(logged("(flushMessages): called"), 2u);
}

TEST_F(EventBatchingTest, AThresholdReachedWithoutReportingKeepsTheBatchAndStartsCountingAnew) {
    auto backend = personalBackend(entryWith("event_threshold", 2));
    backend->setUserInfoDict(nullptr);
    for (int n = 0; n < 8; ++n) send(*backend, {{"n", n}}, 5);
    EXPECT_EQ(logged("we reached event threshold for method 5"), 2u) << "from the entry";
    backend->setUserInfoDict(userInfo());
    EXPECT_EQ(eventsIn(backend->flushMessages()).size(), 8u);
}

TEST_F(EventBatchingTest, BoundsWhatItHolds) {
    auto backend = enabledBackend();
    backend->setState(BackendState::SampledOut);
    const Dictionary payload{{"text", std::string(1u << 20, 'x')}};
    for (int n = 0; n < 20; ++n) send(*backend, payload);
    send(*backend, {{"nested", Array{Value(std::string(1u << 20, 'x'))}}});
    EXPECT_EQ(logged("<4>HTTPSPostBackend(batchEvent): "), 1u);

    backend->setState(BackendState::Enabled);
    EXPECT_EQ(eventsIn(backend->flushMessages()).size(), 15u);
    backend->setBatchEvents(true);
    for (int n = 0; n < 20; ++n) send(*backend, payload);
    EXPECT_EQ(eventsIn(backend->flushMessages()).size(), 5u) << "a full batch is posted";
    EXPECT_EQ(logged("<7>HTTPSPostBackend(flushMessages): called"), 3u);
    EXPECT_EQ(logged("<4>HTTPSPostBackend(batchEvent): "), 1u);
}

class EventRoomTest : public PostingFixture {
  protected:
    static constexpr auto kSlot = platform::UserAccount::Slot::EventBytes;
    ~EventRoomTest() override { platform::UserAccount::setBounds(kSlot, _bounds); }

    const platform::UserAccount::Bounds _bounds = platform::UserAccount::bounds(kSlot);
};

TEST_F(EventRoomTest, AReportingBackendPostsWhatItHasNoRoomFor) {
    auto backend = enabledBackend({{"post_url", _server->url("/post")}});
    backend->setBatchEvents(true);
    const auto posted = [&] {
        EXPECT_TRUE(platform::drainHttpSession(std::chrono::seconds(30)));
        std::vector<std::int64_t> numbers;
        for (const test::ServerRequest& request : _server->requests())
            for (const Value& event : eventsIn(request.body))
                numbers.push_back(event.dictionary()->integer("n"));
        _server->forgetRequests();
        return numbers;
    };
    const Dictionary large{{"n", 2}, {"text", std::string(17u << 20, 'x')}};
    EXPECT_FALSE(send(*backend, {{"n", 1}}));
    EXPECT_FALSE(send(*backend, large)) << "answered as a held one";
    EXPECT_THAT(posted(), testing::ElementsAre(1, 2));

    platform::UserAccount::setBounds(kSlot, {0, 0});
    for (const int n : {3, 4}) EXPECT_FALSE(send(*backend, {{"n", n}}));
    EXPECT_THAT(posted(), testing::ElementsAre(3, 4));
    EXPECT_EQ(logged("<4>HTTPSPostBackend(batchEvent): "), 0u);
}

TEST_F(EventRoomTest, EventsOfAUserWhoHoldsAllThatHeMayTakeNoRoomFromOthers) {
    platform::UserAccount::setBounds(kSlot, {1u << 20, 2u << 20});
    const auto holdingFor = [](uid_t user) {
        auto backend = enabledBackend();
        backend->setState(BackendState::SampledOut);
        backend->ledger().join(std::make_shared<SessionLedger>(user, 0));
        return backend;
    };
    const auto first = holdingFor(1001), second = holdingFor(1001), other = holdingFor(1002);
    const auto held = [](const auto& backend) { return backend->ledger().totals().held; };
    for (int n = 0; n < 8; ++n) send(*first, {{"text", std::string(200'000, 'x')}});
    for (const auto& backend : {second, other}) send(*backend, {{"text", std::string(100'000, 'x')}});
    EXPECT_EQ(held(first), 5u);
    EXPECT_EQ(held(second), 0u);
    EXPECT_EQ(held(other), 1u);
    first->setState(BackendState::Enabled);
    EXPECT_TRUE(first->flushMessages());
    send(*second, {});
    EXPECT_EQ(held(second), 1u) << "what is gone counts no more";
    first->cleanup(), second->cleanup(), other->cleanup();
    EXPECT_EQ(platform::UserAccount::takenInAll(kSlot), 0u);
}

}  // namespace
}  // namespace quorvane

#include "tests/session/SessionFixture.h"

namespace quorvane {
namespace {

using testing::IsEmpty;

class AggregationRelayTest : public SessionFixture {
  protected:
    /// A session of a client of its own that aggregates; every other session has it as its ancestor.
    std::shared_ptr<QuorvanedSession> makeAncestor() {
        auto ancestor = QuorvanedSession::initWithSessionDelegate(_delegate, _ancestorClient);
        ancestor->setSessionInfo({{"SessionID", 1}}, std::nullopt, {}, true);
        _delegate.aggregator = ancestor.get();
        return ancestor;
    }

    std::shared_ptr<RecordingClient> _ancestorClient = std::make_shared<RecordingClient>();
};

TEST_F(AggregationRelayTest, AnAggregatingClientGetsItsOwnEventsBeforeTheBackends) {
    const auto session = startedSession({}, {}, true);
    _client->takeEvents();
    const std::size_t sent = logged("<7>HTTPSPostBackend(sendMessage): Sending");
    _client->onEvent = [&] {
        EXPECT_EQ(logged("<7>HTTPSPostBackend(sendMessage): Sending"), sent);
        EXPECT_TRUE(_delegate.locked()) << "or the end of aggregation could come before the event";
    };
    const Dictionary payload{{"count", 1}};
    EXPECT_TRUE(send(*session, 5, 6, &payload));
    const auto events = _client->takeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].sessionInfo, (Dictionary{{"SessionID", 7}, {"ClientType", 7}}));
    EXPECT_GT(events[0].timestamp, 1.7e9);
    EXPECT_EQ(events[0].category, 5);
    EXPECT_EQ(events[0].type, 6);
    EXPECT_EQ(events[0].payload, payload);
    _client->onEvent = nullptr;

    send(*session, 5, 6, nullptr);
    EXPECT_EQ(_client->takeEvents().at(0).payload, std::nullopt);

    const auto ancestor = makeAncestor();
    send(*session, 5, 6, nullptr);
    EXPECT_EQ(_ancestorClient->takeEvents().size(), 1u);
    EXPECT_THAT(_client->takeEvents(), IsEmpty()) << "never to both";
    _delegate.aggregator = nullptr;
}

TEST_F(AggregationRelayTest, TheEndIsToldOnceAndForGood) {
    auto session = startedSession({}, {}, true);
    _client->takeEvents();
    session->shutdownSessionAggregation();
    EXPECT_FALSE(session->hasAggregator());
    session->shutdownSessionAggregation();
    EXPECT_EQ(logged("<7>shutdownSessionAggregation: Disable aggregation module for session 7"), 2u);
    send(*session, 5, 6, nullptr);
    session.reset();
    const auto events = _client->takeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].endsAggregation());
    EXPECT_EQ(events[0].sessionInfo.integer("SessionID"), 7);
}

}  // namespace
}  // namespace quorvane

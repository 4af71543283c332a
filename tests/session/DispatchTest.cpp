#include "session/BackendAnswers.h"
#include "tests/session/SessionFixture.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>

namespace quorvane {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

/// A backend with one answer to everything.
class AnsweringBackend final : public QuorvaneBackend {
  public:
    AnsweringBackend(const std::string& name, Answer answer)
        : QuorvaneBackend(name, nullptr, std::nullopt), _answer(std::move(answer)) {}
    Answer flushMessages() override { return _answer; }

  private:
    const Answer _answer;
};

class DispatchTest : public SessionFixture {
  protected:
    static Answer flushAll(const std::vector<std::pair<std::string, Answer>>& answers) {
        BackendDictionary backends;
        for (const auto& [name, answer] : answers)
            backends[name] = std::make_shared<AnsweringBackend>(name, answer);
        return collectAnswers(backends, "[{} -> flushMessages] {}",
                              [](QuorvaneBackend& backend) { return backend.flushMessages(); });
    }

    static Dictionary message(const Value& category, const Value& type) {
        return {{"Category", category}, {"Type", type}};
    }
};

TEST_F(DispatchTest, TheClientGetsTheHttpPostAnswerElseTheDashboards) {
    EXPECT_EQ(flushAll({{"dashboard", "d"}, {"httppost", "h"}, {"httppost2", "h2"}}), "h");
    EXPECT_EQ(flushAll({{"dashboard", "d"}, {"httppost", std::nullopt}, {"ossel", "o"}}), "d");
    EXPECT_EQ(flushAll({{"httppost2", "only logged"}, {"joulary", "j"}}), std::nullopt);
    EXPECT_EQ(flushAll({}), std::nullopt);
    const std::string log = messageLog();
    EXPECT_THAT(log, HasSubstr(") [dashboard -> flushMessages] d\n"));
    EXPECT_THAT(log, HasSubstr(") [httppost2 -> flushMessages] only logged\n"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 7);

    // Whatever the order.
    std::optional<std::string> selected;
    selectAnswer(selected, "httppost", "h");
    selectAnswer(selected, "httppost", std::nullopt);
    selectAnswer(selected, "dashboard", "d");
    EXPECT_EQ(selected, "h");
}

TEST_F(DispatchTest, AnEventReachesTheServerAndItsAnswerTheClientAndTheLog) {
    const auto session = startedSession();
    Dictionary event = message(65'536 + 5, 6.9);
    event.set("Payload", Dictionary{{"count", 3}});
    event.set("Flag", 4'294'967'296);
    const Answer answer = send(*session, event);
    EXPECT_EQ(logged("<7>sendMessageWithCategory: Sending message for session 7"), 1u);
    EXPECT_EQ(onlyEventIn(answer).integer("count"), 3);
    EXPECT_THAT(messageLog(), HasSubstr(") [httppost -> sendMessageWithDictionary] " + answer.value_or("")));

    Dictionary odd = message("five", -1);
    odd.set("Payload", Array{1});
    odd.set("Flag", "1");
    EXPECT_TRUE(send(*session, odd));

    const auto events = posted();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1].integer("_method"), 5) << "cut to 16 bits, as the flag is to 32";
    EXPECT_EQ(events[1].integer("_status"), 6);
    EXPECT_EQ(events[2].integer("_method"), 0) << "what is of another type reads as absent";
    EXPECT_EQ(events[2].integer("_status"), 65'535);
}

TEST_F(DispatchTest, AnEventThatCompletesABatchIsAnsweredBeforeTheBatchIsPosted) {
    _delegate.storebag = storebagWith({{"httppost", profile()}});
    const auto session = startedSession({{"BatchEvent", true}});
    for (int held = 0; held < 50; ++held) send(*session, 5, 6, nullptr);
    session->sendMessageWithCategory(5, 6, nullptr, nullptr);
    EXPECT_EQ(logged("HTTPSPostBackend(batchEvent): Flushing all batched events"), 1u);
    EXPECT_EQ(posted().size(), 0u);
    while (session->continueSending()) continue;
    EXPECT_EQ(posted().size(), 51u) << "the first event of the session and 50 of this method";
}

TEST_F(DispatchTest, WithoutAStorebagEveryAnswerIsNil) {
    _delegate.storebag = nullptr;
    const auto session = configuredSession();
    EXPECT_EQ(start(*session), std::nullopt);
    EXPECT_EQ(fetchStates(*session, Dictionary{{"ClientName", "Mail"}}), std::nullopt);
    EXPECT_EQ(send(*session, message(5, 6)), std::nullopt);
    EXPECT_EQ(flush(*session), std::nullopt);
    EXPECT_EQ(logged("<7>sendMessageWithDictionary: No backends available to send message"), 1u);
    EXPECT_EQ(logged("<7>flushMessages: No backends available to send message"), 1u);
}

TEST_F(DispatchTest, CategoryAndTypeAreMandatory) {
    const auto session = startedSession({}, {}, true);
    _client->takeEvents();
    for (const Dictionary& lacking : {Dictionary{}, {{"Type", 1}}, {{"Category", 1}}})
        EXPECT_EQ(send(*session, lacking), std::nullopt);
    EXPECT_EQ(logged("<7>sendMessageWithDictionary: Missing mandatory parameter 'category'"), 2u);
    EXPECT_EQ(logged("<7>sendMessageWithDictionary: Missing mandatory parameter 'type'"), 1u);
    EXPECT_THAT(_client->takeEvents(), IsEmpty());
    EXPECT_EQ(eventsIn(flush(*session)).size(), 1u) << "the session's own first event";
}

TEST_F(DispatchTest, EveryBackendAndTheAggregatorGetOneTimeAndBackendsCountOnTheirOwn) {
    // Every look at the clock shows another time.
    static std::atomic<std::int64_t> seconds;
    seconds = 1'800'000'000;
    platform::replaceClock([] { return platform::TimeValue{++seconds, 250'000}; });
    _delegate.storebag = storebagWith({{"httppost", profile()}, {"httppost2", profile("post2")}});
    const auto session = startedSession({}, {}, true);
    send(*session, 5, 6, nullptr);
    platform::replaceClock(nullptr);

    const auto first = posted("/post"), second = posted("/post2");
    const auto relayed = _client->takeEvents();
    ASSERT_EQ(first.size(), 2u);
    ASSERT_EQ(second.size(), 2u);
    ASSERT_EQ(relayed.size(), 2u);
    for (const std::size_t i : {0u, 1u}) {
        EXPECT_EQ(first[i].integer("_eventNumber"), i + 1);
        EXPECT_EQ(second[i].integer("_eventNumber"), i + 1);
        EXPECT_EQ(*first[i].find("_clientTS"), *second[i].find("_clientTS"));
        EXPECT_EQ(relayed[i].timestamp - static_cast<std::int64_t>(relayed[i].timestamp), 0.25);
    }
    EXPECT_NEAR(relayed[1].timestamp - relayed[0].timestamp,
                first[1].find("_clientTS")->real() - first[0].find("_clientTS")->real(), 1e-6);
}

TEST_F(DispatchTest, AnAggregatingClientGetsItsOwnEventsBeforeTheBackendsUnlessAnAncestorDoes) {
    const auto session = startedSession({}, {}, true);
    _client->takeEvents();
    const std::size_t sent = logged("<7>HTTPSPostBackend(sendMessage): Sending");
    _client->onEvent = [&] {
        EXPECT_EQ(logged("<7>HTTPSPostBackend(sendMessage): Sending"), sent);
        EXPECT_TRUE(_delegate.locked()) << "or the end of aggregation could come before the event";
    };
    const Dictionary payload{{"count", 1}};
    EXPECT_TRUE(send(*session, 5, 6, &payload));
    _client->onEvent = nullptr;
    send(*session, 5, 6, nullptr);
    const auto events = _client->takeEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].sessionInfo, (Dictionary{{"SessionID", 7}, {"ClientType", 7}}));
    EXPECT_GT(events[0].timestamp, 1.7e9);
    EXPECT_EQ(events[0].category, 5);
    EXPECT_EQ(events[0].type, 6);
    EXPECT_EQ(events[0].payload, payload);
    EXPECT_EQ(events[1].payload, std::nullopt);

    const auto ancestorClient = std::make_shared<RecordingClient>();
    const auto ancestor = QuorvanedSession::initWithSessionDelegate(_delegate, ancestorClient);
    ancestor->setSessionInfo({{"SessionID", 1}}, std::nullopt, {}, true);
    _delegate.aggregator = ancestor.get();
    send(*session, 5, 6, nullptr);
    EXPECT_EQ(ancestorClient->takeEvents().size(), 1u);
    EXPECT_THAT(_client->takeEvents(), IsEmpty()) << "never to both";
    _delegate.aggregator = nullptr;
}

TEST_F(DispatchTest, TheEndOfAggregationIsToldOnceAndForGood) {
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

TEST_F(DispatchTest, EventsOfASessionThatRelaysNothingPassADownload) {
    const auto session = startedSession({}, {}, false);
    std::future<bool> sent;
    const std::scoped_lock download(_delegate.lock());
    sent = std::async(std::launch::async, [&] { return send(*session, 5, 6, nullptr).has_value(); });
    ASSERT_EQ(sent.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_TRUE(sent.get());
}

}  // namespace
}  // namespace quorvane

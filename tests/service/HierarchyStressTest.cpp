#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/bus/BusListener.h"
#include "platform/formats/Json.h"
#include "platform/http/HttpSession.h"
#include "platform/loop/RunLoop.h"
#include "platform/system/ProcessTransaction.h"
#include "service/QuorvanedAgent.h"
#include "tests/support/DaemonFixture.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <string_view>
#include <thread>
#include <utility>
#include <variant>

namespace quorvane::test {
namespace {

constexpr std::uint16_t kOurs = 12;
constexpr int kGroups = 8;
/// So many of the groups have an aggregating top from the first event to the last.
constexpr int kSettledGroups = 6;
constexpr int kClients = 64;
constexpr std::array<std::uint32_t, 3> kTypeOfLevel{5, 6, 8};

/// How long clients come and go.
std::chrono::seconds stressTime() {
    const char* seconds = std::getenv("QUORVANE_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 5);
}

template <typename T>
T valueOf(Result<T> result) {
    if (result) return *std::move(result);
    ADD_FAILURE() << result.error().message;
    return {};
}

/// Whether a connection has come, after all the groups had been seen, while there was no session.
std::atomic<bool> cameToNoSession = false;

void noteLogLine(platform::LogLevel, std::string_view line) {
    if (line.starts_with("listener: Accepting new XPC connection") && line.ends_with(", 0(8) connections."))
        cameToNoSession = true;
}

/// The daemon's service inside this process, so that a sanitizer sees both ends.
class ServiceThread {
  public:
    ServiceThread() {
        std::promise<void> listens;
        _thread = std::thread([this, &listens] { serve(listens); });
        listens.get_future().wait();
    }

    ~ServiceThread() {
        _loop->post([this] { _listener->invalidateAll([this] { _loop->exit(0); }); });
        _thread.join();
    }

  private:
    void serve(std::promise<void>& listens) {
        const auto loop = platform::RunLoop::init();
        auto made = platform::BusListener::initWithSocketPath(platform::rooted(kQuorvaneSocketPath));
        const auto listener = std::get<std::unique_ptr<platform::BusListener>>(std::move(made));
        const auto agent = QuorvanedAgent::init();
        listener->setDelegate([&](const auto& connection) { return agent->listener(*listener, connection); });
        EXPECT_TRUE(listener->resume(*loop));
        _loop = loop.get();
        _listener = listener.get();
        listens.set_value();
        loop->run();
        listener->close();
    }

    platform::RunLoop* _loop = nullptr;
    platform::BusListener* _listener = nullptr;
    std::thread _thread;
};

/// The numbers of the events that one client's aggregation block got.
class Receiver {
  public:
    AggregationBlock block() {
        return {.event = [this](const AggregatedEvent& event) {
            if (event.category != kOurs) return;
            const std::scoped_lock lock(_mutex);
            _numbers.push_back(event.payload->integer("n"));
        }};
    }

    std::vector<std::int64_t> numbers() const {
        const std::scoped_lock lock(_mutex);
        return _numbers;
    }

    bool waitFor(std::int64_t number) const {
        return eventually([&] {
            const auto all = numbers();
            return std::find(all.begin(), all.end(), number) != all.end();
        });
    }

  private:
    mutable std::mutex _mutex;
    std::vector<std::int64_t> _numbers;
};

/// Who has to get an event.
struct Expected {
    const Receiver* receiver = nullptr;  ///< Null for nobody, or for whoever happened to aggregate.
    bool maybe = false;                  ///< Nobody is right as well.
};

UserInfo names(int group, bool capitals = false) {
    return {.clientName = (capitals ? "GROUP" : "group") + std::to_string(group), .serviceName = "Stress"};
}

Event numbered(std::int64_t number) {
    return {.category = kOurs, .type = 3, .payload = {{{"n", number}}}};
}

Client connect(std::chrono::milliseconds closeTimeout = std::chrono::seconds(60)) {
    auto client = Client::connect({.timeout = kSoon, .closeTimeout = closeTimeout});
    if (!client) throw std::runtime_error("no connection: " + client.error().message);
    return *std::move(client);
}

/// A client that joins groups, sends, moves on and leaves, over and over, as its seed has it.
class Wanderer {
  public:
    Wanderer(int index, const std::array<Receiver, kSettledGroups>& tops)
        : _tops(tops), _random(static_cast<unsigned>(index) + 1), _nextNumber(index * 1'000'000ll) {}

    void wander(const std::atomic<bool>& over) {
        while (!over) liveOnce(over);
    }

    const std::map<std::int64_t, Expected>& sent() const { return _sent; }
    const std::list<Receiver>& receivers() const { return _receivers; }

  private:
    int draw(int bound) { return static_cast<int>(_random() % static_cast<unsigned>(bound)); }

    void liveOnce(const std::atomic<bool>& over) {
        _level = draw(3);
        _group = draw(kGroups);
        _receiver = draw(3) == 0 ? &_receivers.emplace_back() : nullptr;
        _leavesAbruptly = draw(4) == 0;
        Client client = connect(_leavesAbruptly ? std::chrono::seconds(0) : std::chrono::seconds(60));
        introduce(client);
        valueOf(client.start());
        for (int acts = 1 + draw(12); acts > 0 && !over; --acts) act(client);
        // What an abrupt end leaves behind must have been taken; what comes back need not be read.
        if (_leavesAbruptly) valueOf(client.flush());
        const bool awaitsItsLast = !_leavesAbruptly && _lastOwn;
        EXPECT_TRUE(!awaitsItsLast || _receiver->waitFor(*_lastOwn));
        _lastOwn.reset();
    }

    void introduce(Client& client) {
        const SessionInfo sessionInfo{.sessionID = 1u,
                                      .clientType = kTypeOfLevel.at(_level),
                                      .batchEvent = true,
                                      .requireUserInfo = true};
        valueOf(client.setSessionInfo(sessionInfo, names(_group, draw(2) == 0), {},
                                      _receiver != nullptr ? _receiver->block() : AggregationBlock()));
    }

    void act(Client& client) {
        switch (draw(8)) {
            case 0:
                _group = draw(kGroups);
                valueOf(client.fetchStates(names(_group, draw(2) == 0)));
                break;
            case 1:
                valueOf(client.flush());
                introduce(client);  // While others read what it told before.
                // Nobody is below the lowest level, to miss it while it is set up anew.
                if (_level == 2) valueOf(client.start());
                break;
            default:
                for (int events = 1 + draw(8); events > 0; --events) send(client);
                if (draw(2) == 0) valueOf(client.flush());
        }
    }

    void send(Client& client) {
        const std::int64_t number = ++_nextNumber;
        _sent[number] = expected();
        if (_level == 0 && _receiver != nullptr) _lastOwn = number;
        valueOf(client.sendAndForget(numbered(number)));
    }

    Expected expected() const {
        if (_level == 0) return {_receiver, _leavesAbruptly};
        if (_group < kSettledGroups) return {&_tops.at(_group), false};
        return {nullptr, true};
    }

    const std::array<Receiver, kSettledGroups>& _tops;
    std::minstd_rand _random;
    std::int64_t _nextNumber;
    std::map<std::int64_t, Expected> _sent;
    std::list<Receiver> _receivers;

    // The life it leads now.
    int _level = 0;
    int _group = 0;
    Receiver* _receiver = nullptr;
    bool _leavesAbruptly = false;
    std::optional<std::int64_t> _lastOwn;
};

class HierarchyStressTest : public testing::Test {
  protected:
    void SetUp() override {
        ::setenv("QUORVANE_ROOT", _device.root().c_str(), 1);
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
        platform::setLogSink(&noteLogLine);
        serve("pelmark", 0);
        serve("stremcore", 1);
        serve("vistabox", 2);
    }

    void TearDown() override { platform::setLogSink(nullptr); }

    void serve(const char* storebag, int level) {
        _device.serveStorebag(_device.httpPostSection({{"hierarchy", level}, {"event_threshold", 1'000'000}}),
                              storebag);
    }

    /// A client whose events are answered with what was posted.
    static Client unbatched(int level, int group, AggregationBlock block = {}) {
        Client client = connect();
        const SessionInfo sessionInfo{
            .sessionID = 1u, .clientType = kTypeOfLevel.at(level), .requireUserInfo = true};
        valueOf(client.setSessionInfo(sessionInfo, names(group), {}, std::move(block)));
        valueOf(client.start());
        return client;
    }

    std::string postedUnder(Client& client) {
        const auto answer = valueOf(client.send(numbered(++_lastOfTops)));
        const auto message = platform::parseJson(answer.value_or(""));
        if (!message) return "";
        return *message->dictionary()->array("events")->at(0).dictionary()->string("_sessionID");
    }

    /// A chain through the group hangs together of the sessions that are there, and of no others.
    void expectGroupInOrder(int group, const std::string& top) {
        Client middle = unbatched(1, group);
        Client bottom = unbatched(2, group);
        const std::string second = postedUnder(middle);
        const std::string third = postedUnder(bottom);
        EXPECT_TRUE(second.starts_with(top.empty() ? "" : top + ".")) << second;
        EXPECT_EQ(std::count(second.begin(), second.end(), '.'), top.empty() ? 0 : 1) << second;
        EXPECT_TRUE(third.starts_with(second + ".")) << third;
        EXPECT_EQ(std::count(third.begin(), third.end(), '.'), top.empty() ? 1 : 2) << third;
    }

    DaemonFixture _device;
    std::int64_t _lastOfTops = 900'000'000;
};

/// Every event came to the receiver that it was for, once, and to no other one.
void expectDelivered(const std::list<Wanderer>& wanderers, const std::array<Receiver, kSettledGroups>& tops) {
    std::map<std::int64_t, std::vector<const Receiver*>> received;
    const auto take = [&](const Receiver& receiver) {
        for (const std::int64_t number : receiver.numbers()) received[number].push_back(&receiver);
    };
    for (const Receiver& top : tops) take(top);
    for (const Wanderer& wanderer : wanderers)
        for (const Receiver& receiver : wanderer.receivers()) take(receiver);
    std::size_t count = 0;
    int wrong = 0;
    for (const Wanderer& wanderer : wanderers)
        for (const auto& [number, expected] : wanderer.sent()) {
            const auto& by = received[number];
            const bool missing = by.empty() && expected.receiver != nullptr && !expected.maybe;
            const bool unwanted = by.size() > 1 || (by.size() == 1 && expected.receiver != by[0] &&
                                                    (expected.receiver != nullptr || !expected.maybe));
            wrong += missing || unwanted ? 1 : 0;
            count += by.size();
        }
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(count, 0u);
}

TEST_F(HierarchyStressTest, ClientsThatComeAndGoAtRandomLeaveNothingOutOfPlace) {
    std::array<Receiver, kSettledGroups> receivers;
    std::list<Wanderer> wanderers;
    std::optional<ServiceThread> service(std::in_place);
    {
        std::vector<Client> tops;
        for (int group = 0; group < kSettledGroups; ++group)
            tops.push_back(unbatched(0, group, receivers.at(group).block()));

        std::atomic<bool> over = false;
        std::vector<std::thread> threads;
        for (int index = kSettledGroups; index < kClients; ++index) {
            Wanderer& wanderer = wanderers.emplace_back(index, receivers);
            threads.emplace_back([&] { wanderer.wander(over); });
        }
        std::this_thread::sleep_for(stressTime());
        over = true;
        for (std::thread& thread : threads) thread.join();

        for (int group = 0; group < kSettledGroups; ++group) {
            const std::string top = postedUnder(tops.at(group));
            EXPECT_TRUE(receivers.at(group).waitFor(_lastOfTops)) << "behind everything sent before";
            EXPECT_EQ(tops.at(group).droppedEvents(), 0u);
            expectGroupInOrder(group, top);
        }
        for (int group = kSettledGroups; group < kGroups; ++group) expectGroupInOrder(group, "");
    }
    EXPECT_TRUE(eventually([] { return !platform::processTransactionOpen(); }));
    valueOf(connect().displayURL());
    service.reset();
    EXPECT_TRUE(cameToNoSession);
    expectDelivered(wanderers, receivers);

    EXPECT_TRUE(platform::drainHttpSession(kSoon));
    std::map<std::int64_t, int> posted;
    for (const Dictionary& record : _device.postedEvents(kOurs)) ++posted[record.integer("n")];
    int wrong = 0;
    for (const Wanderer& wanderer : wanderers)
        for (const auto& [number, expected] : wanderer.sent()) wrong += posted[number] == 1 ? 0 : 1;
    EXPECT_EQ(wrong, 0) << "every event also went to the server, once";
}

}  // namespace
}  // namespace quorvane::test

#include "framework/EventPacking.h"
#include "platform/bus/BusValue.h"
#include "tests/client/ClientFixture.h"

#include <quorvane/Reporter.h>

#include <numeric>

namespace quorvane::test {
namespace {

using std::chrono::milliseconds;

Event numbered(std::uint64_t number, std::uint32_t flag = 0) {
    return {.category = 1, .type = 2, .payload = Dictionary{{"number", number}}, .flag = flag};
}

/// A daemon that notes its calls and the numbers of the events that it takes.
class NotingDaemon {
  public:
    explicit NotingDaemon(bool knowsBatches = true)
        : _knowsBatches(knowsBatches), peer([this](sd_bus_message* message) { return take(message); }) {}

    std::vector<std::uint64_t> numbers() {
        const std::lock_guard lock(_mutex);
        return _numbers;
    }
    std::vector<std::string> calls() {
        const std::lock_guard lock(_mutex);
        return _calls;
    }
    std::chrono::microseconds oldest() {
        const std::lock_guard lock(_mutex);
        return _oldest;
    }

    ReporterOptions options() const {
        return {.socketPath = peer.path(), .firstRetry = milliseconds(1), .longestRetry = milliseconds(5)};
    }

  private:
    int take(sd_bus_message* message) {
        const std::string member = ::sd_bus_message_get_member(message);
        const std::lock_guard lock(_mutex);
        if (member == "SendMessages") return _knowsBatches ? takeBatch(message) : 0;
        std::optional<Dictionary> user;
        Dictionary sent;
        if (member == "SendMessageWithDictionary" && platform::readDictionary(message, sent) >= 0)
            _numbers.push_back(sent.dictionary("Payload")->unsignedInteger("number"));
        if (member == "SetSessionInfo") platform::readDictionary(message, sent);
        if (member == "SetSessionInfo" || member == "FetchStatesWithUserInfo")
            platform::readOptionalDictionary(message, user);
        _calls.push_back(member + (user ? " " + user->text("ClientName").value_or("") : ""));
        if (member == "StartConfig" && startsWithoutStorebag-- > 0)
            return ::sd_bus_reply_method_return(message, "aas", 0);
        if (member == "StartConfig" || member == "FetchStatesWithUserInfo")
            return ::sd_bus_reply_method_return(message, "aas", 1, 1, "httppost");
        return answerNil(message);
    }

    int takeBatch(sd_bus_message* message) {
        const void* bytes = nullptr;
        std::size_t size = 0;
        ::sd_bus_message_read_array(message, 'y', &bytes, &size);
        PackedEventReader events({static_cast<const std::uint8_t*>(bytes), size});
        std::uint32_t taken = 0;
        while (events.next() == PackedEventReader::Step::Event) {
            _numbers.push_back(events.event().payload->unsignedInteger("number"));
            _oldest = std::max(_oldest, events.event().age);
            ++taken;
        }
        if (taken > 0) _calls.push_back("events");
        return ::sd_bus_reply_method_return(message, "uas", taken, 0);
    }

    const bool _knowsBatches;
    std::mutex _mutex;
    std::vector<std::uint64_t> _numbers;
    std::vector<std::string> _calls;
    std::chrono::microseconds _oldest{0};

  public:
    std::atomic<int> startsWithoutStorebag = 0;
    BusPeer peer;
};

Reporter startReporter(ReporterOptions options) {
    Result<Reporter> reporter = Reporter::start(std::move(options));
    if (!reporter) throw std::runtime_error(reporter.error().message);
    return *std::move(reporter);
}

TEST(ReporterTest, EveryEventIsAccountedForThroughAHundredRestarts) {
    NotingDaemon daemon;
    std::atomic<unsigned> losses = 0;
    ReporterOptions options = daemon.options();
    options.stateChanged = [&](const ReporterStatus& status) {
        if (status.state == ReporterState::Disconnected) ++losses;
    };
    Reporter reporter = startReporter(options);
    std::uint64_t reported = 0;
    for (unsigned restart = 1; restart <= 100; ++restart) {
        ASSERT_TRUE(eventually([&] { return reporter.statistics().sessions >= restart; }));
        for (int i = 0; i < 500; ++i) reporter.report(numbered(reported++));
        daemon.peer.disconnect();
        ASSERT_TRUE(eventually([&] { return losses >= restart; }));
    }
    ASSERT_TRUE(reporter.flush());
    const ReporterStatistics statistics = reporter.close(kSoon);
    EXPECT_EQ(statistics.reported, reported);
    EXPECT_EQ(statistics.reported, statistics.taken + statistics.dropped());
    EXPECT_EQ(statistics.dropped(), statistics.droppedFull + statistics.droppedLost);
    const auto numbers = daemon.numbers();
    EXPECT_GE(numbers.size(), statistics.taken);
    EXPECT_LE(numbers.size(), statistics.taken + statistics.droppedLost);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end(), std::less_equal<>()))
        << "in order, and none twice";
    EXPECT_GT(statistics.taken, 0u);
}

TEST(ReporterTest, EventsWaitForADaemonWithinBounds) {
    NotingDaemon daemon;
    ReporterOptions options = daemon.options();
    options.socketPath += "-later";
    options.queueEvents = 10;
    options.queueBytes = 2000;
    Reporter reporter = startReporter(options);
    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t number = 0; number < 10; ++number) EXPECT_TRUE(reporter.report(numbered(number)));
    EXPECT_FALSE(reporter.report(numbered(10)));
    EXPECT_FALSE(reporter.report({.payload = Dictionary{{"key", "\xff"}}}));
    EXPECT_FALSE(reporter.report({.payload = Dictionary{{"key", std::string(2000, 'x')}}}));
    EXPECT_EQ(reporter.flush(milliseconds(50)).error().code, ErrorCode::TimedOut);
    const ReporterStatistics full = reporter.statistics();
    EXPECT_EQ(full.reported, 13u);
    EXPECT_EQ(full.waiting, 10u);
    EXPECT_EQ(full.droppedFull, 1u);
    EXPECT_EQ(full.droppedUnsendable, 1u);
    EXPECT_EQ(full.droppedTooLarge, 1u);

    std::filesystem::create_symlink(daemon.peer.path(), options.socketPath);
    ASSERT_TRUE(reporter.flush());
    EXPECT_EQ(daemon.numbers().size(), 10u);
    EXPECT_GE(daemon.oldest(), milliseconds(50));
    EXPECT_LE(daemon.oldest(), std::chrono::steady_clock::now() - start);
    EXPECT_EQ(reporter.statistics().taken, 10u);
}

TEST(ReporterTest, ADaemonWithoutBatchesGetsOneCallAnEvent) {
    NotingDaemon daemon(false);
    Reporter reporter = startReporter(daemon.options());
    std::vector<std::uint64_t> sent(2'000);
    std::iota(sent.begin(), sent.end(), 0);
    for (const std::uint64_t number : sent) reporter.report(numbered(number));
    ASSERT_TRUE(reporter.flush());
    EXPECT_EQ(reporter.statistics().taken, sent.size());
    EXPECT_EQ(daemon.numbers(), sent);
}

TEST(ReporterTest, UserInfoAndFlushKeepTheirPlaceAmongTheEvents) {
    NotingDaemon daemon;
    ReporterOptions options = daemon.options();
    options.userInfo = UserInfo{.clientName = "first"};
    Reporter reporter = startReporter(options);
    reporter.report(numbered(1));
    EXPECT_TRUE(reporter.setUserInfo(UserInfo{.clientName = "unseen"}));
    EXPECT_TRUE(reporter.setUserInfo(UserInfo{.clientName = "second"}));
    EXPECT_EQ(reporter.setUserInfo(UserInfo{.clientName = "\xff"}).error().code, ErrorCode::InvalidArgument);
    reporter.report(numbered(2));
    ASSERT_TRUE(reporter.flush());
    daemon.peer.disconnect();
    ASSERT_TRUE(eventually([&] { return reporter.statistics().sessions == 2; }));
    reporter.report(numbered(3, kFlagSendNow));
    ASSERT_TRUE(eventually([&] { return reporter.statistics().taken == 3; }));
    EXPECT_EQ(daemon.calls(),
              (std::vector<std::string>{"SetSessionInfo first", "StartConfig", "events",
                                        "FetchStatesWithUserInfo second", "events", "FlushMessages",
                                        "SetSessionInfo second", "StartConfig", "events"}));
}

TEST(ReporterTest, ASessionWithoutAStorebagIsStartedAgainUntilThereIsOne) {
    NotingDaemon daemon;
    daemon.startsWithoutStorebag = 3;
    ReporterOptions options = daemon.options();
    std::mutex mutex;
    std::vector<ReportingStates> told;
    options.stateChanged = [&](const ReporterStatus& status) {
        const std::lock_guard lock(mutex);
        if (status.state == ReporterState::Connected) told.push_back(status.backends);
    };
    Reporter reporter = startReporter(options);
    ASSERT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex);
        return told.size() == 2;
    }));
    EXPECT_EQ(told, (std::vector<ReportingStates>{std::nullopt, std::vector<std::string>{"httppost"}}));
    std::this_thread::sleep_for(milliseconds(20));
    ASSERT_TRUE(reporter.flush());
    const std::vector<std::string> calls = daemon.calls();
    EXPECT_EQ(std::ranges::count(calls, "StartConfig"), 4) << "no more once there is one";
    EXPECT_EQ(reporter.statistics().sessions, 1u);
}

TEST(ReporterTest, ClosingWaitsForADaemonThatAnswersOnly) {
    NotingDaemon daemon;
    ReporterOptions options = daemon.options();
    Reporter reporter = startReporter(options);
    for (std::uint64_t number = 0; number < 5'000; ++number) reporter.report(numbered(number));
    EXPECT_EQ(reporter.close(kSoon).taken, 5'000u);
    EXPECT_FALSE(reporter.report(numbered(0)));
    EXPECT_EQ(reporter.statistics().droppedAtEnd, 1u);

    const auto start = std::chrono::steady_clock::now();
    Reporter stuck = startReporter(options);
    ASSERT_TRUE(eventually([&] { return stuck.statistics().sessions == 1; }));
    daemon.peer.setPaused(true);
    stuck.report(numbered(0));
    EXPECT_EQ(stuck.close(milliseconds(50)).droppedLost, 1u);
    options.socketPath += "-nobody";
    Reporter alone = startReporter(options);
    alone.report(numbered(0));
    EXPECT_EQ(alone.close(kNoTimeout).droppedAtEnd, 1u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kSoon);
    EXPECT_EQ(Reporter::start({.socketPath = std::string(200, 'x')}).error().code,
              ErrorCode::InvalidArgument);
}

}  // namespace
}  // namespace quorvane::test

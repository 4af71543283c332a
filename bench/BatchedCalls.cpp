#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Median.h"
#include "bench/OtherWork.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/World.h"

#include <algorithm>
#include <vector>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

constexpr std::uint64_t kRounds = 20;
constexpr std::uint64_t kWarmUpEvents = 10'000;
constexpr double kMostTimesSingleCalls = 0.65;

struct Round {
    Nanoseconds single{};
    Nanoseconds batched{};
};

/// A daemon fed the same events by a client, one unanswered call each, and by a reporter, in turns.
class BatchedCalls {
  public:
    explicit BatchedCalls(World& world, std::uint64_t eventsAtATime)
        : _world(world), _client(world.openSession()), _reporter(startReporter(world, eventsAtATime)) {}

    Round measure(std::uint64_t events) {
        Round round;
        round.single = cpuOf(events, [&] {
            sendPipelined(_client, _sent, events, Answers::Unwanted);
            orDie(_client.flush(), "flush");
        });
        round.batched = cpuOf(events, [&] {
            for (std::uint64_t number = _sent; number < _sent + events; ++number)
                if (!_reporter.report(event(number))) die("report", "an event was dropped");
            orDie(_reporter.flush(), "flush");
        });
        _sent += events;
        return round;
    }

    void reportArrivals() {
        countRow("events that arrived", _world.collector().events(), _expected);
        countRow("events that the reporter knows to be taken", _reporter.statistics().taken, _sent);
    }

  private:
    static Reporter startReporter(World& world, std::uint64_t eventsAtATime) {
        ReporterOptions options = world.reporterOptions({.serviceName = "Batches"});
        options.queueEvents = eventsAtATime;
        options.queueBytes = std::size_t{1} << 30;
        return orDie(Reporter::start(std::move(options)), "reporter");
    }

    /// CPU time of the daemon an event, from the first to the last post's arrival.
    template <typename Function>
    Nanoseconds cpuOf(std::uint64_t events, const Function& send) {
        const CpuMeter cpu(_world.daemon());
        send();
        _expected += arrivingEvents(events);
        _world.collector().waitForEvents(_expected);
        return cpu.used() / static_cast<double>(events);
    }

    World& _world;
    Client _client;
    Reporter _reporter;
    std::uint64_t _sent = 0;
    std::uint64_t _expected = 0;
};

}  // namespace

void measureBatchedCalls(const Options& options) {
    heading(
        fmt::format("{} events of a reporter and as many unanswered calls of a client; medians of {} rounds",
                    options.events, kRounds));
    World world;
    const std::uint64_t events = std::max<std::uint64_t>(options.events / kRounds, 1);
    BatchedCalls calls(world, std::max(events, kWarmUpEvents));
    calls.measure(kWarmUpEvents);
    const OtherWork others({world.daemon()});
    std::vector<Round> rounds;
    for (std::uint64_t number = 0; number < kRounds; ++number) rounds.push_back(calls.measure(events));
    row("CPU per event, daemon, unanswered calls", "{:.2f} us",
        inMicroseconds(median(rounds, [](const Round& r) { return r.single; })));
    row("CPU per event, daemon, batched", "{:.2f} us",
        inMicroseconds(median(rounds, [](const Round& r) { return r.batched; })));
    timedRow("batched / unanswered calls",
             median(rounds, [](const Round& r) { return r.batched / r.single; }), kMostTimesSingleCalls,
             others.share());
    calls.reportArrivals();
}

}  // namespace quorvane::bench

#include "bench/AllocationCounter.h"
#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/SystemCallTrace.h"
#include "bench/World.h"

#include <cstdint>
#include <map>
#include <string>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// Enough for caches, connections and allocators to settle.
constexpr std::uint64_t kWarmUpEvents = 2'000;
/// Fewer in an event are not worth a line.
constexpr double kFewestShown = 0.005;

struct Bounds {
    double allocations;
    double systemCalls;
};
// Less than one above what was measured.
constexpr Bounds kMostUnanswered{11, 0.4};
constexpr Bounds kMostAnswered{11, 1.5};

/// A daemon that is counted, fed in batches. It is slower than others, so that no time is taken of it.
class CountedDaemon {
  public:
    CountedDaemon() : _world(_allocations.environment()), _client(_world.openSession()) {}

    void count(std::uint64_t events, Answers answers, const Bounds& most) {
        const char* title = answers == Answers::Wanted ? "answered" : "unanswered";
        send(kWarmUpEvents, answers);
        const std::uint64_t before = _allocations.count();
        SystemCallTrace trace(_world.daemon());
        send(events, answers);
        const std::map<std::string, std::uint64_t> calls = trace.stop();
        const auto perEvent = [&](std::uint64_t number) {
            return static_cast<double>(number) / static_cast<double>(events);
        };
        std::uint64_t allCalls = 0;
        for (const auto& [name, number] : calls) allCalls += number;
        boundedRow(fmt::format("allocations, {}", title), perEvent(_allocations.count() - before),
                   most.allocations);
        boundedRow(fmt::format("system calls, {}", title), perEvent(allCalls), most.systemCalls);
        for (const auto& [name, number] : calls)
            if (perEvent(number) >= kFewestShown) row("  " + name, "{:.3f}", perEvent(number));
    }

  private:
    /// Returns when all that arrives has arrived.
    void send(std::uint64_t events, Answers answers) {
        sendPipelined(_client, _sent, events, answers);
        orDie(_client.flush(), "flush");
        _sent += events;
        _expected += arrivingEvents(events);
        if (!_world.collector().waitForEvents(_expected)) die("counted events", "they do not arrive");
    }

    AllocationCounter _allocations;
    World _world;
    Client _client;
    std::uint64_t _sent = 0;
    std::uint64_t _expected = 0;
};

}  // namespace

void measureEventCounts(const Options& options) {
    heading(
        fmt::format("What an event asks for, the mean of {} events of one client", options.countedEvents));
    CountedDaemon daemon;
    daemon.count(options.countedEvents, Answers::Unwanted, kMostUnanswered);
    daemon.count(options.countedEvents, Answers::Wanted, kMostAnswered);
}

}  // namespace quorvane::bench

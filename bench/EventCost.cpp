#include "bench/Die.h"
#include "bench/EchoServer.h"
#include "bench/Options.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/Unavoidable.h"
#include "bench/World.h"

#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// Everything is measured in turns, so that a machine which is busy for a while is so for all of it.
constexpr std::uint64_t kRounds = 20;
/// Enough for caches, connections and allocators to settle.
constexpr std::uint64_t kWarmUpEvents = 10'000;
constexpr std::size_t kKeptMessages = 40;
constexpr double kMostTimesUnavoidable = 1.5;

struct Round {
    double daemonPerSecond = 0;
    double echoPerSecond = 0;
    Nanoseconds daemon{};
    Nanoseconds echo{};
    UnavoidableWork work;

    Nanoseconds unavoidable() const { return echo + work.json + work.gzip + work.sha256; }
    double ratio() const { return daemon / unavoidable(); }
    double ratioWithReading() const { return daemon / (unavoidable() + work.reading); }
};

template <typename Function>
auto median(const std::vector<Round>& rounds, const Function& of) {
    std::vector<decltype(of(rounds.front()))> values;
    for (const Round& round : rounds) values.push_back(of(round));
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

/// The daemon and the bare echo, fed the same events in turns.
class EventCost {
  public:
    EventCost(World& world, const EchoServer& echo, Answers answers)
        : _world(world),
          _echo(echo),
          _answers(answers),
          _arrivedBefore(world.collector().events()),
          _toDaemon(world.openSession()),
          _toEcho(orDie(Client::connect({.socketPath = echo.socketPath()}), "connect")) {
        _world.collector().keepMessages(kKeptMessages);
        Round ignored;
        measureDaemon(ignored, kWarmUpEvents);
        measureEcho(ignored, kWarmUpEvents);
        _messages = _world.collector().keptMessages();
    }

    Round measure(std::uint64_t events) {
        Round round;
        measureEcho(round, events);
        measureDaemon(round, events);
        round.work = measureUnavoidableWork(_messages, events);
        return round;
    }

    void reportArrivals() const {
        countRow("events that arrived", _world.collector().events() - _arrivedBefore, _expected);
    }

  private:
    /// From the first event to the last post's arrival.
    void measureDaemon(Round& round, std::uint64_t events) {
        const CpuMeter cpu(_world.daemon());
        round.daemonPerSecond = sendPipelined(_toDaemon, _sent, events, _answers);
        orDie(_toDaemon.flush(), "flush");
        _sent += events;
        _expected += arrivingEvents(events);
        _world.collector().waitForEvents(_arrivedBefore + _expected);
        round.daemon = cpu.used() / static_cast<double>(events);
    }

    void measureEcho(Round& round, std::uint64_t events) {
        const CpuMeter cpu(_echo.pid());
        round.echoPerSecond = sendPipelined(_toEcho, _sent, events, _answers);
        round.echo = cpu.used() / static_cast<double>(events);
    }

    World& _world;
    const EchoServer& _echo;
    const Answers _answers;
    const std::uint64_t _arrivedBefore;
    Client _toDaemon;
    Client _toEcho;
    std::uint64_t _sent = 0;
    std::uint64_t _expected = 0;
    std::vector<Data> _messages;
};

void report(const std::vector<Round>& rounds) {
    const auto cpuRow = [&](const std::string& name, const auto& of) {
        row(name, "{:.2f} us", inMicroseconds(median(rounds, of)));
    };
    row("events per second, daemon", "{:.0f}", median(rounds, [](auto& r) { return r.daemonPerSecond; }));
    row("events per second, bare echo", "{:.0f}", median(rounds, [](auto& r) { return r.echoPerSecond; }));
    cpuRow("CPU per event, daemon", [](auto& r) { return r.daemon; });
    cpuRow("  bare D-Bus echo", [](auto& r) { return r.echo; });
    cpuRow(fmt::format("  RapidJSON, {:.0f} bytes an event", rounds.front().work.jsonBytes),
           [](auto& r) { return r.work.json; });
    cpuRow("  zlib", [](auto& r) { return r.work.gzip; });
    cpuRow("  SHA-256 of two texts", [](auto& r) { return r.work.sha256; });
    cpuRow("  sum of what cannot be avoided", [](auto& r) { return r.unavoidable(); });
    boundedRow("daemon / sum", median(rounds, [](auto& r) { return r.ratio(); }), kMostTimesUnavoidable);
    cpuRow("  sd-bus reads the event's values", [](auto& r) { return r.work.reading; });
    row("daemon / sum and reading", "{:.2f}", median(rounds, [](auto& r) { return r.ratioWithReading(); }));
}

void measureLoad(World& world, const EchoServer& echo, std::uint64_t events, Answers answers) {
    heading(fmt::format("{} events of one client, {}, posted in batches of {}; medians of {} rounds", events,
                        answers == Answers::Wanted ? "answered" : "unanswered", kBatchSize, kRounds));
    EventCost cost(world, echo, answers);
    std::vector<Round> rounds;
    for (std::uint64_t number = 0; number < kRounds; ++number)
        rounds.push_back(cost.measure(std::max<std::uint64_t>(events / kRounds, 1)));
    report(rounds);
    cost.reportArrivals();
}

void latencyRow(const char* name, const Latencies& latencies) {
    row(name, "{:.0f}, {:.0f}, {:.0f} us", inMicroseconds(latencies.percentile(0.5)),
        inMicroseconds(latencies.percentile(0.99)), inMicroseconds(latencies.percentile(0.999)));
}

void measureLatency(World& world, const EchoServer& echo, std::uint64_t calls) {
    heading(fmt::format("{} waiting sends, one after another: 50th, 99th, 99.9th percentile", calls));
    Client toEcho = orDie(Client::connect({.socketPath = echo.socketPath()}), "connect");
    const Latencies bare = sendWaiting(toEcho, calls);
    Client toDaemon = world.openSession();
    const Latencies daemon = sendWaiting(toDaemon, calls);
    latencyRow("bare echo", bare);
    latencyRow("daemon", daemon);
    row("daemon / echo, 50th", "{:.2f}", daemon.percentile(0.5) / bare.percentile(0.5));
}

}  // namespace

void measureEventCost(const Options& options) {
    World world;
    const EchoServer echo;
    for (const Answers answers : {Answers::Wanted, Answers::Unwanted})
        measureLoad(world, echo, options.events, answers);
    measureLatency(world, echo, options.waitingCalls);
}

}  // namespace quorvane::bench

#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/EchoClient.h"
#include "bench/EchoServer.h"
#include "bench/Median.h"
#include "bench/OtherWork.h"
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
constexpr double kMostTimesUnavoidable = 1.2;
constexpr double kMostTimesUnavoidableAnswered = 1.1;

struct Round {
    double daemonPerSecond = 0;
    double answersPerSecond = 0;
    Nanoseconds daemon{};
    Nanoseconds echo{};    ///< Sends the message back.
    Nanoseconds answer{};  ///< Answers with nothing.
    UnavoidableWork work;

    Nanoseconds sum(Nanoseconds bus) const { return bus + work.json + work.gzip + work.sha256; }
    Nanoseconds unavoidable() const { return sum(answer + work.reading); }
};

/// The daemon and the bare echo, fed the same events in turns.
class EventCost {
  public:
    EventCost(World& world, const EchoServer& echo, Answers answers)
        : _world(world),
          _echo(echo),
          _answers(answers),
          _arrivedBefore(world.collector().events()),
          _toDaemon(world.openSession()),
          _toEcho(echo.socketPath()),
          _toAnswerer(orDie(Client::connect({.socketPath = echo.socketPath()}), "connect")) {
        _world.collector().keepMessages(kKeptMessages);
        Round ignored;
        measureDaemon(ignored, kWarmUpEvents);
        measureEcho(ignored, kWarmUpEvents);
        measureAnswer(ignored, kWarmUpEvents);
        _messages = _world.collector().keptMessages();
    }

    Round measure(std::uint64_t events) {
        Round round;
        measureEcho(round, events);
        measureAnswer(round, events);
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
        _toEcho.echoPipelined(_sent, events);
        round.echo = cpu.used() / static_cast<double>(events);
    }

    void measureAnswer(Round& round, std::uint64_t events) {
        const CpuMeter cpu(_echo.pid());
        round.answersPerSecond = sendPipelined(_toAnswerer, _sent, events, _answers);
        round.answer = cpu.used() / static_cast<double>(events);
    }

    World& _world;
    const EchoServer& _echo;
    const Answers _answers;
    const std::uint64_t _arrivedBefore;
    Client _toDaemon;
    EchoClient _toEcho;
    Client _toAnswerer;
    std::uint64_t _sent = 0;
    std::uint64_t _expected = 0;
    std::vector<Data> _messages;
};

void report(const std::vector<Round>& rounds, double most, double othersShare) {
    const auto rateRow = [&](const char* name, const auto& of) { row(name, "{:.0f}", median(rounds, of)); };
    const auto cpuRow = [&](const std::string& name, const auto& of) {
        row(name, "{:.2f} us", inMicroseconds(median(rounds, of)));
    };
    rateRow("events per second, daemon", [](auto& r) { return r.daemonPerSecond; });
    rateRow("events per second, bare D-Bus server", [](auto& r) { return r.answersPerSecond; });
    cpuRow("CPU per event, daemon", [](auto& r) { return r.daemon; });
    cpuRow("  bare D-Bus answer to the unread message", [](auto& r) { return r.answer; });
    cpuRow("  sd-bus reads the message's values", [](auto& r) { return r.work.reading; });
    cpuRow(fmt::format("  RapidJSON, {:.0f} bytes an event", rounds.front().work.jsonBytes),
           [](auto& r) { return r.work.json; });
    cpuRow("  zlib", [](auto& r) { return r.work.gzip; });
    cpuRow("  SHA-256 of two texts", [](auto& r) { return r.work.sha256; });
    cpuRow("  sum of what cannot be avoided", [](auto& r) { return r.unavoidable(); });
    timedRow("daemon / sum", median(rounds, [](auto& r) { return r.daemon / r.unavoidable(); }), most,
             othersShare);

    // How the ratio moves with what is taken for the bare server's part.
    row("daemon / sum without the reading", "{:.2f}",
        median(rounds, [](auto& r) { return r.daemon / r.sum(r.answer); }));
    cpuRow("  D-Bus echo that sends the message back", [](auto& r) { return r.echo; });
    row("daemon / sum with this echo", "{:.2f}",
        median(rounds, [](auto& r) { return r.daemon / r.sum(r.echo); }));
}

void measureLoad(World& world, const EchoServer& echo, std::uint64_t events, Answers answers) {
    heading(fmt::format("{} events of one client, {}, posted in batches of {}; medians of {} rounds", events,
                        answers == Answers::Wanted ? "answered" : "unanswered", kBatchSize, kRounds));
    EventCost cost(world, echo, answers);
    const OtherWork others({world.daemon(), echo.pid()});
    std::vector<Round> rounds;
    rounds.reserve(kRounds);
    for (std::uint64_t number = 0; number < kRounds; ++number)
        rounds.push_back(cost.measure(std::max<std::uint64_t>(events / kRounds, 1)));
    report(rounds, answers == Answers::Wanted ? kMostTimesUnavoidableAnswered : kMostTimesUnavoidable,
           others.share());
    cost.reportArrivals();
}

}  // namespace

void measureEventCost(const Options& options) {
    World world;
    const EchoServer echo;
    for (const Answers answers : {Answers::Wanted, Answers::Unwanted})
        measureLoad(world, echo, options.events, answers);
}

}  // namespace quorvane::bench

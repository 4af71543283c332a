#include "bench/BenchOptions.h"
#include "bench/BusMessage.h"
#include "bench/Die.h"
#include "bench/Load.h"
#include "bench/Median.h"
#include "bench/OtherWork.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/World.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <vector>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

constexpr std::uint64_t kRounds = 20;
constexpr double kMostOfReport = 2.5;
constexpr double kMostOfUnanswered = 3;
constexpr double kMostOfAnswered = 6;
constexpr double kMostAt999th = 20;

/// CPU time of this process an event, in microseconds.
struct Round {
    double encoder = 0;
    double report = 0;
    double unanswered = 0;
    double answered = 0;
};

std::vector<Event> someEvents() {
    std::vector<Event> events;
    for (std::uint64_t number = 0; number < 1'000; ++number) events.push_back(event(number));
    return events;
}

double cpuPerEvent(std::uint64_t events, const std::function<void(std::uint64_t)>& send,
                   const std::function<void()>& finish) {
    const CpuMeter cpu(::getpid());
    for (std::uint64_t number = 0; number < events; ++number) send(number);
    finish();
    return inMicroseconds(cpu.used()) / static_cast<double>(events);
}

/// Sessions without backends: the daemon posts nothing, which this process would receive.
class Application {
  public:
    Application(World& world, std::uint64_t events)
        : _client(orDie(Client::connect({.socketPath = world.socketPath()}), "connect")),
          _reporter(orDie(Reporter::start({.socketPath = world.socketPath(),
                                           .queueEvents = events,
                                           .queueBytes = std::size_t{1} << 30}),
                          "reporter")) {}

    Round measure(std::uint64_t events) {
        const auto at = [this](std::uint64_t number) -> const Event& {
            return _events[number % _events.size()];
        };
        const auto flush = [this] { orDie(_client.flush(), "flush"); };
        Round round;
        round.encoder = cpuPerEvent(
            events, [&](std::uint64_t number) { makeReadableCall(_bus.get(), *at(number).payload); }, [] {});
        round.report = cpuPerEvent(
            events, [&](std::uint64_t number) { _reporter.report(at(number)); },
            [this] { orDie(_reporter.flush(), "flush"); });
        round.unanswered = cpuPerEvent(
            events, [&](std::uint64_t number) { orDie(_client.sendAndForget(at(number)), "send"); }, flush);
        round.answered = cpuPerEvent(
            events,
            [&](std::uint64_t number) {
                orDie(_client.sendAsync(at(number), [](const Result<Answer>&) {}), "send");
            },
            flush);
        return round;
    }

  private:
    const std::vector<Event> _events = someEvents();
    const Bus _bus = makeBus();
    Client _client;
    Reporter _reporter;
};

/// How long report() takes while the daemon reads nothing.
Latencies reportToStoppedDaemon(World& world, std::uint64_t events) {
    ReporterOptions options = world.reporterOptions();
    options.queueEvents = events + 1;
    options.queueBytes = std::size_t{1} << 30;
    Reporter reporter = orDie(Reporter::start(std::move(options)), "reporter");
    reporter.report(event(0));
    orDie(reporter.flush(), "flush");
    ::kill(world.daemon(), SIGSTOP);
    Latencies latencies = timeEach(events, [&](std::uint64_t number) { reporter.report(event(number)); });
    ::kill(world.daemon(), SIGCONT);
    if (reporter.statistics().dropped() != 0) die("report", "an event was dropped");
    return latencies;
}

}  // namespace

void measureApplicationCost(const Options& options) {
    heading(
        fmt::format("The application's part of {} events; medians of {} rounds", options.events, kRounds));
    World world;
    const std::uint64_t events = std::max<std::uint64_t>(options.events / kRounds, 1);
    std::vector<Round> rounds;
    {
        Application application(world, events);
        application.measure(events);
        const OtherWork others({world.daemon()});
        for (std::uint64_t number = 0; number < kRounds; ++number)
            rounds.push_back(application.measure(events));
        const auto bounded = [&](const char* name, double Round::*of, double most) {
            timedRow(name, median(rounds, [of](const Round& r) { return r.*of; }), most, others.share());
        };
        row("us per event, the bus library encodes the payload", "{:.2f}",
            median(rounds, [](const Round& r) { return r.encoder; }));
        bounded("us per event, Reporter::report", &Round::report, kMostOfReport);
        bounded("us per event, Client::sendAndForget", &Round::unanswered, kMostOfUnanswered);
        bounded("us per event, Client::sendAsync", &Round::answered, kMostOfAnswered);
    }
    const OtherWork others({world.daemon()});
    const Latencies latencies = reportToStoppedDaemon(world, options.events);
    row("report, daemon stopped, 50th and 99th percentile", "{:.2f}, {:.2f} us",
        inMicroseconds(latencies.percentile(0.5)), inMicroseconds(latencies.percentile(0.99)));
    timedRow("report, daemon stopped, 99.9th percentile in us", inMicroseconds(latencies.percentile(0.999)),
             kMostAt999th, others.share());
}

}  // namespace quorvane::bench

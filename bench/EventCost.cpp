#include "bench/EchoServer.h"
#include "bench/Options.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/Unavoidable.h"
#include "bench/World.h"

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// Enough for caches, connections and allocators to settle.
constexpr std::uint64_t kWarmUpEvents = 10'000;
constexpr std::size_t kKeptMessages = 40;
constexpr double kMostTimesUnavoidable = 1.5;

struct Daemon {
    double eventsPerSecond = 0;
    Nanoseconds cpuPerEvent{};
    std::vector<Data> messages;
};

/// The load from the first event to the last post's arrival.
Daemon measureDaemon(World& world, std::uint64_t count) {
    Client client = world.openSession();
    sendPipelined(client, 0, kWarmUpEvents);
    orDie(client.flush(), "flush");
    std::uint64_t expected = arrivingEvents(kWarmUpEvents);
    if (!world.collector().waitForEvents(expected)) die("warm-up", "events are missing");

    Daemon daemon;
    world.collector().keepMessages(kKeptMessages);
    const CpuMeter cpu(world.daemon());
    daemon.eventsPerSecond = sendPipelined(client, kWarmUpEvents, count);
    orDie(client.flush(), "flush");
    expected += arrivingEvents(count);
    world.collector().waitForEvents(expected);
    daemon.cpuPerEvent = cpu.used() / static_cast<double>(count);
    daemon.messages = world.collector().keptMessages();
    countRow("events that arrived", world.collector().events(), expected);
    return daemon;
}

Nanoseconds measureEcho(const EchoServer& echo, std::uint64_t count) {
    Client client = orDie(Client::connect({.socketPath = echo.socketPath()}), "connect");
    sendPipelined(client, 0, kWarmUpEvents);
    const CpuMeter cpu(echo.pid());
    const double eventsPerSecond = sendPipelined(client, kWarmUpEvents, count);
    const Nanoseconds perEvent = cpu.used() / static_cast<double>(count);
    row("events per second, bare echo", "{:.0f}", eventsPerSecond);
    return perEvent;
}

void reportCpu(Nanoseconds daemon, Nanoseconds echo, const UnavoidableWork& work) {
    const auto cpuRow = [](const char* name, Nanoseconds time) {
        row(name, "{:.2f} us", inMicroseconds(time));
    };
    cpuRow("CPU per event, daemon", daemon);
    cpuRow("  bare D-Bus echo", echo);
    cpuRow(fmt::format("  RapidJSON ({:.0f} bytes an event)", work.jsonBytes).c_str(), work.json);
    cpuRow("  zlib", work.gzip);
    cpuRow("  SHA-256 of two texts", work.sha256);
    cpuRow("  sum of what cannot be avoided", echo + work.sum());
    boundedRow("daemon / sum", daemon / (echo + work.sum()), kMostTimesUnavoidable);
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
    heading(fmt::format("{} events of one client, posted in batches of {}", options.events, kBatchSize));
    World world;
    const EchoServer echo;
    const Nanoseconds echoCpu = measureEcho(echo, options.events);
    const Daemon daemon = measureDaemon(world, options.events);
    row("events per second, daemon", "{:.0f}", daemon.eventsPerSecond);
    reportCpu(daemon.cpuPerEvent, echoCpu, measureUnavoidableWork(daemon.messages, options.events));
    measureLatency(world, echo, options.waitingCalls);
}

}  // namespace quorvane::bench

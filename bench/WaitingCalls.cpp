#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/EchoServer.h"
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
constexpr std::uint64_t kWarmUpCalls = 500;
/// One call in 51 finds a batch to post.
constexpr double kMostTimesBareAt99th = 2;

struct Round {
    Latencies bare;
    Latencies daemon;

    double ratio(double share) const { return daemon.percentile(share) / bare.percentile(share); }
};

void report(const std::vector<Round>& rounds, double othersShare) {
    const auto latencyRow = [&](const char* name, Latencies Round::*of) {
        const auto at = [&](double share) {
            return inMicroseconds(median(rounds, [&](const Round& r) { return (r.*of).percentile(share); }));
        };
        row(name, "{:.0f}, {:.0f}, {:.0f} us", at(0.5), at(0.99), at(0.999));
    };
    latencyRow("bare D-Bus server", &Round::bare);
    latencyRow("daemon", &Round::daemon);
    row("daemon / bare, 50th", "{:.2f}", median(rounds, [](const Round& r) { return r.ratio(0.5); }));
    timedRow("daemon / bare, 99th", median(rounds, [](const Round& r) { return r.ratio(0.99); }),
             kMostTimesBareAt99th, othersShare);
}

}  // namespace

void measureWaitingCalls(const Options& options) {
    heading(fmt::format(
        "{} waiting sends, one after another: 50th, 99th, 99.9th percentile; medians of {} rounds",
        options.waitingCalls, kRounds));
    World world;
    const EchoServer echo;
    Client toEcho = orDie(Client::connect({.socketPath = echo.socketPath()}), "connect");
    Client toDaemon = world.openSession();
    sendWaiting(toEcho, kWarmUpCalls);
    sendWaiting(toDaemon, kWarmUpCalls);
    const OtherWork others({world.daemon(), echo.pid()});
    std::vector<Round> rounds;
    const std::uint64_t calls = std::max<std::uint64_t>(options.waitingCalls / kRounds, 1);
    for (std::uint64_t number = 0; number < kRounds; ++number) {
        Latencies bare = sendWaiting(toEcho, calls);
        rounds.push_back({std::move(bare), sendWaiting(toDaemon, calls)});
    }
    report(rounds, others.share());
}

}  // namespace quorvane::bench

#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Load.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/World.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// Ten times as many sessions no longer fit into the processor's caches: up to 2.2 was seen where the cost
/// grows with the sessions alone, and 7.7 where each met every other.
constexpr double kMostGrowth = 3;

/// CPU per event of the daemon for a child session's load.
Nanoseconds childCost(World& world, const std::string& service, std::uint64_t events) {
    Client child = world.openSession({.profile = Profile::Child, .serviceName = service});
    sendPipelined(child, 0, events / 10);
    orDie(child.flush(), "flush");
    const CpuMeter cpu(world.daemon());
    sendPipelined(child, events, events);
    orDie(child.flush(), "flush");
    return cpu.used() / static_cast<double>(events);
}

void measureRelay(const Options& options) {
    const std::uint64_t events = std::max<std::uint64_t>(options.events / 4, 100);
    heading(fmt::format("{} events of a session below another", events));
    World world;
    const Client plainParent = world.openSession({.serviceName = "Plain"});
    std::atomic<std::uint64_t> relayed{0};
    SessionSetup aggregating{.serviceName = "Aggregated"};
    aggregating.aggregationBlock.event = [&](const AggregatedEvent& event) {
        if (event.category == kCategory) ++relayed;
    };
    const Client aggregator = world.openSession(aggregating);

    const Nanoseconds without = childCost(world, "Plain", events);
    const Nanoseconds with = childCost(world, "Aggregated", events);
    row("CPU per event of the daemon, the parent does not aggregate", "{:.2f} us", inMicroseconds(without));
    row("CPU per event of the daemon, the parent aggregates", "{:.2f} us", inMicroseconds(with));
    row("with / without", "{:.2f}", with / without);
    row("events that the parent's client got so far", "{} of {}", relayed.load(), events + events / 10);
}

/// Median CPU time of the daemon for a top session's move into the group.
Nanoseconds joinCost(World& world, Client& top, const std::string& group) {
    std::vector<Nanoseconds> costs;
    for (int round = 0; round < 15; ++round) {
        orDie(top.fetchStates(userInfo("Elsewhere")), "user info");
        const CpuMeter cpu(world.daemon());
        orDie(top.fetchStates(userInfo(group)), "user info");
        costs.push_back(cpu.used());
    }
    std::nth_element(costs.begin(), costs.begin() + 7, costs.end());
    return costs[7];
}

void measureDownstream() {
    heading("A top session joins a group, and every session below it is brought up to date");
    World world;
    Client top = world.openSession({.serviceName = "Elsewhere"});
    joinCost(world, top, "Empty");

    // What a session adds to a group, from one size to the next.
    std::vector<Client> children;
    std::vector<Nanoseconds> added;
    Nanoseconds before{};
    std::size_t sizeBefore = 0;
    for (const std::size_t size : {10, 100, 1000}) {
        while (children.size() < size)
            children.push_back(world.openSession({.profile = Profile::Child, .serviceName = "Group"}));
        const Nanoseconds cost = joinCost(world, top, "Group");
        added.push_back((cost - before) / static_cast<double>(size - sizeBefore));
        row(fmt::format("CPU of the daemon, {} sessions", size), "{:.1f} us, {:.2f} us a session more",
            inMicroseconds(cost), inMicroseconds(added.back()));
        before = cost;
        sizeBefore = size;
    }
    boundedRow("a session more, from 100 to 1000 / from 10 to 100", added[2] / added[1], kMostGrowth);
}

}  // namespace

void measureHierarchy(const Options& options) {
    measureRelay(options);
    measureDownstream();
}

}  // namespace quorvane::bench

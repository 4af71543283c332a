#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/World.h"

#include <thread>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

constexpr std::uint64_t kEventsBefore = 1000;

void measureIdleSeconds(World& world, std::chrono::seconds idle, const char* title) {
    const CpuMeter cpu(world.daemon());
    const std::uint64_t switches = contextSwitches(world.daemon());
    std::this_thread::sleep_for(idle);
    boundedRow(fmt::format("{}: CPU", title), inMicroseconds(cpu.used()), 0, " us");
    boundedRow(fmt::format("{}: context switches", title),
               static_cast<double>(contextSwitches(world.daemon()) - switches), 0);
}

}  // namespace

void measureIdleness(const Options& options) {
    heading(fmt::format("{} s in which nothing happens", options.idle.count()));
    World world;
    // Whatever the start puts off for a moment is over.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    measureIdleSeconds(world, options.idle, "before any session");
    Client client = world.openSession();
    sendPipelined(client, 0, kEventsBefore);
    orDie(client.flush(), "flush");
    world.collector().waitForEvents(arrivingEvents(kEventsBefore));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    measureIdleSeconds(world, options.idle, "with a session that has sent events");
}

}  // namespace quorvane::bench

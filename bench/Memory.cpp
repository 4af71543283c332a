#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/World.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

constexpr double kKiB = 1024;
constexpr double kMiB = 1024 * kKiB;
constexpr double kMostIdleMiB = 4;
constexpr double kMostSessionKiB = 64;
/// What waits to be sent, by default, and as much again for what stands around it.
constexpr double kMostStalledMiB = 32;

double anonymousMiB(World& world) {
    return static_cast<double>(anonymousBytes(world.daemon())) / kMiB;
}

/// A thousand sessions are a few descriptors each, here and in the daemon, which inherits the limit.
void raiseDescriptorLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void measureSessions(World& world, std::uint64_t count) {
    // The first session brings the storebag, the HTTP thread and the connection to the server.
    const Client first = world.openSession();
    const double before = anonymousMiB(world);
    row("with one session that reports over HTTPS", "{:.2f} MiB", before);
    std::vector<Client> sessions;
    for (std::uint64_t number = 0; number < count; ++number)
        sessions.push_back(world.openSession({.serviceName = fmt::format("Sync{}", number)}));
    const double each = (anonymousMiB(world) - before) * kKiB / static_cast<double>(count);
    boundedRow(fmt::format("each of {} sessions more", count), each, kMostSessionKiB, " KiB");
}

void measureGrowth(const Options& options) {
    heading(fmt::format("Memory of the daemon over {} events", options.growthEvents));
    World world;
    Client client = world.openSession();
    const std::uint64_t step = std::max<std::uint64_t>(options.growthEvents / 10, 1);
    std::uint64_t expected = 0;
    for (std::uint64_t sent = 0; sent < options.growthEvents; sent += step) {
        sendPipelined(client, sent, step);
        orDie(client.flush(), "flush");
        expected += arrivingEvents(step);
        world.collector().waitForEvents(expected);
        row(fmt::format("after {} events", sent + step), "{:.2f} MiB", anonymousMiB(world));
    }
    countRow("events that arrived", world.collector().events(), expected);
}

/// Sends on a thread of its own until it is told to stop, and counts.
class Sender {
  public:
    Sender(Client& client, std::uint32_t flag) : _thread([this, &client, flag] { send(client, flag); }) {}
    ~Sender() { stop(); }

    std::uint64_t sent() const { return _sent; }
    void stop() {
        _stops = true;
        if (_thread.joinable()) _thread.join();
    }

  private:
    void send(Client& client, std::uint32_t flag) {
        while (!_stops) {
            Event next = event(_sent);
            next.flag = flag;
            orDie(client.sendAndForget(next), "send");
            ++_sent;
        }
    }

    std::atomic<bool> _stops{false};
    std::atomic<std::uint64_t> _sent{0};
    std::thread _thread;
};

/// Waits until the sender has got no further for two seconds; whether it came to that.
bool senderWaits(const Sender& sender) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    std::uint64_t before = 0;
    do {
        before = sender.sent();
        std::this_thread::sleep_for(std::chrono::seconds(2));
    } while (sender.sent() != before && std::chrono::steady_clock::now() < deadline);
    return sender.sent() == before;
}

void stall(const char* title, bool batch, std::uint32_t flag) {
    heading(fmt::format("The collector stalls, and moves again: {}", title));
    World world;
    Client client = world.openSession({.batch = batch});
    world.collector().setStalled(true);
    Sender sender(client, flag);
    row("the sender waits in the end", senderWaits(sender) ? "yes" : "no (MISSED)");
    row("events it had sent by then", "{}", sender.sent());
    boundedRow("memory of the daemon", anonymousMiB(world), kMostStalledMiB, " MiB");
    world.collector().setStalled(false);
    sender.stop();
    orDie(client.flush(), "flush");
    const std::uint64_t expected = batch ? arrivingEvents(sender.sent()) : sender.sent();
    world.collector().waitForEvents(expected, std::chrono::seconds(120));
    countRow("events that arrived", world.collector().events(), expected);
    std::this_thread::sleep_for(std::chrono::seconds(4));  // It gives memory back a little later.
    row("memory of the daemon afterwards", "{:.2f} MiB", anonymousMiB(world));
}

}  // namespace

void measureMemory(const Options& options) {
    heading("Memory of the daemon that no file stands behind");
    raiseDescriptorLimit();
    {
        World world;
        boundedRow("idle, before any session", anonymousMiB(world), kMostIdleMiB, " MiB");
        measureSessions(world, options.sessions);
    }
    measureGrowth(options);
}

void measureStalledCollector(const Options&) {
    stall("batched events", true, 0);
    stall("an event a post", false, kFlagSendNow);
}

}  // namespace quorvane::bench

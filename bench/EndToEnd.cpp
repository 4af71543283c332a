// Measures a whole quorvaned: its own process in a folder of its own, fed over its socket, posting to an
// HTTPS server. Every claim is a ratio of two measurements of one run, so that the machine and what else it
// does count in both.

#include "bench/EchoServer.h"
#include "bench/Load.h"
#include "bench/Report.h"
#include "bench/Sending.h"
#include "bench/Unavoidable.h"
#include "platform/Json.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <exception>
#include <vector>

namespace quorvane::bench {
namespace {

struct Options {
    std::uint64_t events = 200'000;
    std::uint64_t waitingCalls = 20'000;
};

std::vector<Data> messages() {
    std::vector<Data> result;
    for (std::uint64_t first = 0; first < 2000; first += 50) {
        Array events;
        for (std::uint64_t number = first; number < first + 50; ++number) events.emplace_back(record(number));
        result.push_back(platform::compactJson(Value(Dictionary{{"events", std::move(events)}})).value());
    }
    return result;
}

double microseconds(Nanoseconds time) {
    return time.count() / 1000;
}

void latencyRow(const char* name, const Latencies& latencies) {
    row(name, "{:.1f}, {:.1f}, {:.1f} us", microseconds(latencies.percentile(0.5)),
        microseconds(latencies.percentile(0.99)), microseconds(latencies.percentile(0.999)));
}

void run(const Options& options) {
    heading("Bare costs");
    const EchoServer echo;
    {
        Client client = orDie(Client::connect({.socketPath = echo.socketPath()}), "connect");
        const PipelinedCost bare = sendPipelined(client, echo.pid(), 0, options.events);
        row("echo, events per second", "{:.0f}", bare.eventsPerSecond);
        row("echo, CPU per event", "{:.2f} us",
            microseconds(bare.serverCpu) / static_cast<double>(options.events));
        latencyRow("waiting call, client library (50th, 99th, 99.9th)",
                   sendWaiting(client, options.waitingCalls));
    }
    latencyRow("waiting call, sd_bus_call alone", callWaiting(echo.socketPath(), options.waitingCalls));
    const UnavoidableWork work = measureUnavoidableWork(messages(), options.events);
    row("JSON", "{:.2f} us ({:.0f} bytes)", microseconds(work.json), work.jsonBytes);
    row("gzip", "{:.2f} us", microseconds(work.gzip));
    row("SHA-256, two texts", "{:.2f} us", microseconds(work.sha256));
}

}  // namespace
}  // namespace quorvane::bench

int main(int argc, char** argv) try {
    quorvane::bench::Options options;
    CLI::App app("Measures the quorvaned daemon from end to end.");
    app.add_option("--events", options.events, "Events of the load")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    quorvane::bench::run(options);
    return quorvane::bench::anyMissed() ? EXIT_FAILURE : EXIT_SUCCESS;
} catch (const std::exception& exception) {
    fmt::print(stderr, "quorvane-bench-end-to-end: {}\n", exception.what());
    return EXIT_FAILURE;
}

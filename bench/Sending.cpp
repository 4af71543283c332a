#include "bench/Sending.h"

#include "bench/Load.h"
#include "framework/Keys.h"
#include "platform/BusValue.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

using Clock = std::chrono::steady_clock;

struct BusDeleter {
    void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, BusDeleter>;

void check(int result, const char* what) {
    if (result < 0) die(what, std::strerror(-result));
}

Bus connectBus(const std::string& socketPath) {
    sd_bus* raw = nullptr;
    check(::sd_bus_new(&raw), "bus");
    Bus bus(raw);
    check(::sd_bus_set_address(raw, ("unix:path=" + socketPath).c_str()), "bus address");
    check(::sd_bus_start(raw), "bus connection");
    return bus;
}

Message callWith(sd_bus* bus, std::uint64_t number) {
    sd_bus_message* raw = nullptr;
    check(::sd_bus_message_new_method_call(bus, &raw, nullptr, kQuorvaneObjectPath, kClientSessionInterface,
                                           "SendMessageWithDictionary"),
          "message");
    Message call(raw);
    check(platform::appendDictionary(raw, message(number)), "message");
    return call;
}

template <typename Function>
Latencies timeEach(std::uint64_t count, const Function& function) {
    std::vector<Nanoseconds> samples;
    samples.reserve(count);
    for (std::uint64_t number = 0; number < count; ++number) {
        const auto start = Clock::now();
        function(number);
        samples.emplace_back(Clock::now() - start);
    }
    return Latencies(std::move(samples));
}

}  // namespace

Event event(std::uint64_t number) {
    return {.category = kCategory, .type = kType, .payload = payload(number), .flag = 0};
}

void die(const char* what, const std::string& message) {
    fmt::print(stderr, "{}: {}\n", what, message);
    std::exit(EXIT_FAILURE);
}

PipelinedCost sendPipelined(Client& client, pid_t server, std::uint64_t first, std::uint64_t count) {
    const CpuMeter cpu(server);
    const auto start = Clock::now();
    for (std::uint64_t number = first; number < first + count - 1; ++number)
        orDie(client.sendAsync(event(number),
                               [](const Result<Answer>& answer) { orDie(answer, "pipelined event"); }),
              "pipelined send");
    orDie(client.send(event(first + count - 1)), "last event");
    const std::chrono::duration<double> took = Clock::now() - start;
    return {static_cast<double>(count) / took.count(), cpu.used()};
}

Latencies::Latencies(std::vector<Nanoseconds> samples) : _sorted(std::move(samples)) {
    std::sort(_sorted.begin(), _sorted.end());
}

Nanoseconds Latencies::percentile(double share) const {
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(_sorted.size())));
    return _sorted.at(std::max<std::size_t>(rank, 1) - 1);
}

Latencies sendWaiting(Client& client, std::uint64_t count) {
    return timeEach(count, [&](std::uint64_t number) { orDie(client.send(event(number)), "waiting send"); });
}

Latencies callWaiting(const std::string& socketPath, std::uint64_t count) {
    const Bus bus = connectBus(socketPath);
    return timeEach(count, [&](std::uint64_t number) {
        const Message call = callWith(bus.get(), number);
        sd_bus_message* answer = nullptr;
        check(::sd_bus_call(bus.get(), call.get(), 0, nullptr, &answer), "waiting call");
        ::sd_bus_message_unref(answer);
    });
}

}  // namespace quorvane::bench

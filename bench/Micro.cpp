// The single steps of one event's way through the daemon.

#include "backends/EventFilters.h"
#include "bench/Load.h"
#include "platform/BusValue.h"
#include "platform/Json.h"
#include "util/Compression.h"

#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

namespace quorvane::bench {
namespace {

constexpr std::int64_t kBatch = 50;

struct BusDeleter {
    void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, BusDeleter>;

/// A bus that goes nowhere; messages can be made for it once it is started.
Bus makeBus() {
    sd_bus* bus = nullptr;
    int ends[2];
    if (::sd_bus_new(&bus) < 0 ||
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0)
        std::abort();
    if (::sd_bus_set_fd(bus, ends[0], ends[0]) < 0 || ::sd_bus_start(bus) < 0) std::abort();
    return Bus(bus);
}

Message callWith(sd_bus* bus, const Dictionary& message) {
    sd_bus_message* call = nullptr;
    if (::sd_bus_message_new_method_call(bus, &call, nullptr, "/", "a.b", "C") < 0 ||
        platform::appendDictionary(call, message) < 0 || ::sd_bus_message_seal(call, 1, 0) < 0)
        std::abort();
    return Message(call);
}

Data batchJson() {
    Array events;
    for (std::uint64_t number = 0; number < kBatch; ++number) events.emplace_back(record(number));
    return platform::compactJson(Value(std::move(events))).value();
}

void decodeEvent(benchmark::State& state) {
    const Bus bus = makeBus();
    const Message call = callWith(bus.get(), message(1));
    for (auto _ : state) {
        Dictionary decoded;
        ::sd_bus_message_rewind(call.get(), 1);
        if (platform::readDictionary(call.get(), decoded) < 0) state.SkipWithError("not decoded");
        benchmark::DoNotOptimize(decoded);
    }
}
BENCHMARK(decodeEvent);

void encodeEvent(benchmark::State& state) {
    const Bus bus = makeBus();
    const Dictionary event = message(1);
    for (auto _ : state) benchmark::DoNotOptimize(callWith(bus.get(), event));
}
BENCHMARK(encodeEvent);

/// Two short texts are hashed; they are put back each time.
void filterRecord(benchmark::State& state) {
    const Array table = hashingFilters();
    EventFilters filters;
    filters.createFiltersFromArray(table);
    const Dictionary fresh = record(1);
    Dictionary event = fresh;
    for (auto _ : state) {
        for (const char* key : kHashedKeys) event.set(key, *fresh.find(key));
        filters.filterEvent(event);
        benchmark::DoNotOptimize(event);
    }
}
BENCHMARK(filterRecord);

void writeJson(benchmark::State& state) {
    const Value event(record(1));
    std::size_t bytes = 0;
    for (auto _ : state) {
        const auto json = platform::compactJson(event);
        bytes = json->size();
        benchmark::DoNotOptimize(json);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(writeJson);

/// Time is of a batch; "per event" of one event in it.
void gzipBatch(benchmark::State& state) {
    const Data json = batchJson();
    std::size_t bytes = 0;
    for (auto _ : state) {
        const auto compressed = gzipDeflate(json);
        bytes = compressed->size();
        benchmark::DoNotOptimize(compressed);
    }
    state.counters["bytes"] = static_cast<double>(json.size());
    state.counters["gzip bytes"] = static_cast<double>(bytes);
    state.counters["per event"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kBatch),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(gzipBatch);

}  // namespace
}  // namespace quorvane::bench

BENCHMARK_MAIN();

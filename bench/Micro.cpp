// The single steps of one event's way through the daemon.

#include "backends/EventFilters.h"
#include "bench/BusMessage.h"
#include "bench/Load.h"
#include "platform/bus/BusValue.h"
#include "platform/formats/Json.h"
#include "platform/formats/PropertyList.h"
#include "platform/value/Bytes.h"
#include "util/Compression.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace quorvane::bench {
namespace {

constexpr std::int64_t kBatch = 50;

Data batchJson() {
    Array events;
    for (std::uint64_t number = 0; number < kBatch; ++number) events.emplace_back(record(number));
    return platform::compactJson(Value(std::move(events))).value();
}

void decodeEvent(benchmark::State& state) {
    const Bus bus = makeBus();
    const BusMessage call = makeReadableCall(bus.get(), message(1));
    for (auto _ : state) {
        Dictionary decoded;
        ::sd_bus_message_rewind(call.get(), 1);
        if (platform::readDictionary(call.get(), decoded) < 0) state.SkipWithError("not decoded");
        benchmark::DoNotOptimize(decoded);
    }
}
BENCHMARK(decodeEvent);

/// What the bus library alone takes of that.
void readEvent(benchmark::State& state) {
    const Bus bus = makeBus();
    const BusMessage call = makeReadableCall(bus.get(), message(1));
    for (auto _ : state) benchmark::DoNotOptimize(readAllValues(call.get()));
}
BENCHMARK(readEvent);

void encodeEvent(benchmark::State& state) {
    const Bus bus = makeBus();
    const Dictionary event = message(1);
    for (auto _ : state) benchmark::DoNotOptimize(makeReadableCall(bus.get(), event));
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

std::string xmlOf(int entries) {
    std::string text = "<plist><dict>";
    for (int i = 0; i < entries; ++i)
        text += fmt::format("<key>key {}</key><string>&lt;{}&gt;</string>", i, i);
    return text + "</dict></plist>";
}

/// In seconds.
double timeToParse(std::string_view xml) {
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(platform::parsePropertyList(platform::bytesOf(xml)));
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// What a byte of a large list costs, in bytes of a small one: 1 when the time grows with the size, about 64
/// when it grows with the square.
void parseXmlPropertyList(benchmark::State& state) {
    const std::string small = xmlOf(1'000);
    const std::string large = xmlOf(64'000);
    double smallTime = 0;
    double largeTime = 0;
    for (auto _ : state) {
        for (int i = 0; i < 64; ++i) smallTime += timeToParse(small) / 64;
        largeTime += timeToParse(large);
    }
    const double sizes = static_cast<double>(large.size()) / static_cast<double>(small.size());
    state.counters["cost of a byte, large/small"] = largeTime / smallTime / sizes;
}
BENCHMARK(parseXmlPropertyList)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quorvane::bench

BENCHMARK_MAIN();

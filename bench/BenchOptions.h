#pragma once

#include <chrono>
#include <cstdint>

namespace quorvane::bench {

/// How much is measured.
struct Options {
    std::uint64_t events = 200'000;
    std::uint64_t waitingCalls = 20'000;
    std::uint64_t countedEvents = 10'000;
    std::uint64_t growthEvents = 1'000'000;
    std::uint64_t sessions = 1'000;
    std::uint64_t datagrams = 100'000;
    std::uint64_t uploadMegabytes = 64;
    std::chrono::seconds idle{5};

    /// A tenth of it, for a look in passing.
    void shorten();
};

// The measurements, each with a daemon of its own and its own part of the report.

void measureEventCost(const Options& options);
void measureBatchedCalls(const Options& options);
void measureApplicationCost(const Options& options);
void measureWaitingCalls(const Options& options);
void measureEventCounts(const Options& options);
void measureMemory(const Options& options);
void measureStalledCollector(const Options& options);
void measureIdleness(const Options& options);
void measureHierarchy(const Options& options);
void measureDatagrams(const Options& options);
void measureUploads(const Options& options);

}  // namespace quorvane::bench

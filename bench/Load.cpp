#include "bench/Load.h"

#include "framework/Keys.h"

#include <array>
#include <utility>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// splitmix64: every run sends the same events.
std::uint64_t scrambled(std::uint64_t number) {
    number += 0x9e3779b97f4a7c15;
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
    number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
    return number ^ (number >> 31);
}

constexpr std::array<const char*, 6> kActions{"open", "sync", "search", "attach", "delete", "move"};

}  // namespace

Array hashingFilters() {
    Array filters;
    for (const char* key : kHashedKeys) filters.emplace_back(Dictionary{{"key", key}, {"action", "sha256"}});
    return filters;
}

Dictionary payload(std::uint64_t number) {
    const std::uint64_t random = scrambled(number);
    return {{"account", fmt::format("user{}", random % 1000)},
            {"action", kActions[random % kActions.size()]},
            {"bytes", random % 65536},
            {"cached", (random >> 16) % 2 == 0},
            {"duration", static_cast<double>((random >> 20) % 100'000) / 1000.0},
            {"number", number},
            {"peer", fmt::format("host{}", (random >> 32) % 50)},
            {"retries", (random >> 40) % 4}};
}

Dictionary message(std::uint64_t number) {
    Dictionary message;
    message.set(kQuorvaneMessageParametersCategory, kCategory);
    message.set(kQuorvaneMessageParametersFlag, 0u);
    message.set(kQuorvaneMessageParametersPayload, payload(number));
    message.set(kQuorvaneMessageParametersType, kType);
    return message;
}

Dictionary record(std::uint64_t number) {
    const double time = 1'760'000'000.0 + 0.001234 * static_cast<double>(number);
    Dictionary record{{"ClientName", "Mail"},
                      {"ServiceName", "Sync"},
                      {"_build", "24E214"},
                      {"_clientTS", time},
                      {"_clientVersion", 3u},
                      {"_eventNumber", number % 65536},
                      {"_internal", 0u},
                      {"_method", kCategory},
                      {"_osVersion", "12.4"},
                      {"_productFamily", "Reception desk"},
                      {"_productModel", "Quorum12,1"},
                      {"_reportVers", "7.0"},
                      {"_sender", "PLM"},
                      {"_sessionID", "q83vEjRWeJCrze8SNFZ4kA=="},
                      {"_startTS", 1'760'000'040},
                      {"_status", kType},
                      {"_timezoneOffset", 0},
                      {"eventTime", time}};
    for (auto& [key, value] : payload(number)) record.set(key, std::move(value));
    return record;
}

}  // namespace quorvane::bench

#include "bench/Sending.h"

#include "bench/Die.h"
#include "bench/Load.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace quorvane::bench {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

Event event(std::uint64_t number) {
    return {.category = kCategory, .type = kType, .payload = payload(number), .flag = 0};
}

double sendPipelined(Client& client, std::uint64_t first, std::uint64_t count, Answers answers) {
    const auto start = Clock::now();
    const std::uint64_t last = first + count - 1;
    for (std::uint64_t number = first; number < last; ++number) {
        if (answers == Answers::Unwanted)
            orDie(client.sendAndForget(event(number)), "unanswered send");
        else
            orDie(client.sendAsync(event(number),
                                   [](const Result<Answer>& answer) { orDie(answer, "pipelined event"); }),
                  "pipelined send");
    }
    orDie(client.send(event(last)), "last event");
    const std::chrono::duration<double> took = Clock::now() - start;
    return static_cast<double>(count) / took.count();
}

Latencies::Latencies(std::vector<Nanoseconds> samples) : _sorted(std::move(samples)) {
    std::sort(_sorted.begin(), _sorted.end());
}

Nanoseconds Latencies::percentile(double share) const {
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(_sorted.size())));
    return _sorted.at(std::max<std::size_t>(rank, 1) - 1);
}

Latencies timeEach(std::uint64_t count, const std::function<void(std::uint64_t)>& function) {
    std::vector<Nanoseconds> samples;
    samples.reserve(count);
    for (std::uint64_t number = 0; number < count; ++number) {
        const auto start = Clock::now();
        function(number);
        samples.emplace_back(Clock::now() - start);
    }
    return Latencies(std::move(samples));
}

Latencies sendWaiting(Client& client, std::uint64_t count) {
    return timeEach(count, [&](std::uint64_t number) { orDie(client.send(event(number)), "waiting send"); });
}

}  // namespace quorvane::bench

#include "platform/http/HttpDrops.h"

#include "platform/base/Log.h"

#include <algorithm>
#include <iterator>

namespace quorvane::platform {

namespace {

constexpr std::chrono::seconds kBetweenLines{1};

}  // namespace

bool HttpDrops::add(const std::string& server) {
    const MutexLock lock(_mutex);
    ++_count;
    const auto [entry, isFirst] = _servers.try_emplace(server);
    if (isFirst) entry->second.nextLine = std::chrono::steady_clock::now();
    return ++entry->second.unwritten == 1;
}

void HttpDrops::writeDue(Time now) {
    const MutexLock lock(_mutex);
    for (auto entry = _servers.begin(); entry != _servers.end();) {
        auto& [name, server] = *entry;
        const bool isOver = now >= server.nextLine && server.unwritten == 0;
        if (now >= server.nextLine && server.unwritten > 0) {
            logWarning("startDataTask: {} takes too little: dropped {} requests that waited for it", name,
                       server.unwritten);
            server = {0, now + kBetweenLines};
        }
        entry = isOver ? _servers.erase(entry) : std::next(entry);
    }
}

std::optional<HttpDrops::Time> HttpDrops::nextDue() {
    const MutexLock lock(_mutex);
    std::optional<Time> next;
    for (const auto& [name, server] : _servers) next = std::min(next.value_or(Time::max()), server.nextLine);
    return next;
}

std::uint64_t HttpDrops::count() {
    const MutexLock lock(_mutex);
    return _count;
}

}  // namespace quorvane::platform

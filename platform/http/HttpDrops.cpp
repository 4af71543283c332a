#include "platform/http/HttpDrops.h"

#include "platform/base/Log.h"

#include <algorithm>
#include <iterator>

namespace quorvane::platform {

bool HttpDrops::add(const std::string& server) {
    const MutexLock lock(_mutex);
    ++_count;
    return _servers[server].add() == 1;
}

void HttpDrops::writeDue(Time now) {
    const MutexLock lock(_mutex);
    for (auto entry = _servers.begin(); entry != _servers.end();) {
        auto& [name, dropped] = *entry;
        const bool isOver = dropped.isIdle(now);
        if (const std::uint64_t due = dropped.takeDue(now); due > 0)
            logWarning("startDataTask: {} takes too little: dropped {} requests that waited for it", name,
                       due);
        entry = isOver ? _servers.erase(entry) : std::next(entry);
    }
}

std::optional<HttpDrops::Time> HttpDrops::nextDue() {
    const MutexLock lock(_mutex);
    std::optional<Time> next;
    for (const auto& [name, dropped] : _servers)
        next = std::min(next.value_or(Time::max()), dropped.nextLine());
    return next;
}

std::uint64_t HttpDrops::count() {
    const MutexLock lock(_mutex);
    return _count;
}

}  // namespace quorvane::platform

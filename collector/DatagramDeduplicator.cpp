#include "collector/DatagramDeduplicator.h"

#include <functional>
#include <utility>

namespace quorvane::collector {

namespace {

std::size_t digestOf(std::string_view bytes) {
    return std::hash<std::string_view>()(bytes);
}

}  // namespace

bool DatagramDeduplicator::contains(const std::string& name, std::string_view bytes, TimePoint now) {
    forgetOld(now);
    const auto seen = _seen.find(name);
    return seen != _seen.end() && seen->second.digest == digestOf(bytes);
}

void DatagramDeduplicator::remember(const std::string& name, std::string_view bytes, TimePoint now) {
    _seen.insert_or_assign(name, Seen{digestOf(bytes), now});
    _order.emplace_back(now, name);
}

void DatagramDeduplicator::forgetOld(TimePoint now) {
    while (!_order.empty() && (_order.front().first + kWindow < now || _order.size() > kMaximumRemembered)) {
        const auto seen = _seen.find(_order.front().second);
        if (seen != _seen.end() && seen->second.time == _order.front().first) _seen.erase(seen);
        _order.pop_front();
    }
}

}  // namespace quorvane::collector

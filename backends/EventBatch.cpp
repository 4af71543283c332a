#include "backends/EventBatch.h"

#include <cassert>
#include <cstddef>
#include <utility>

namespace quorvane {

using platform::MutexLock;

bool EventBatch::isEmpty() const {
    const MutexLock lock(_lock);
    return !_records || _records->empty();
}

std::int32_t EventBatch::open(std::int64_t method) {
    const MutexLock lock(_lock);
    if (!_records) _records.emplace();
    const auto counted = _methodCounts.find(method);
    return counted != _methodCounts.end() ? counted->second : 0;
}

EventBatch::Outcome EventBatch::hold(Dictionary& record, std::int64_t method, std::int32_t count,
                                     platform::UserAccount& account) {
    const std::size_t bytes = sizeof(Value) + platform::heldBytes(record);
    const MutexLock lock(_lock);
    if (_records) {
        if (!_heldBytes.add(bytes, account)) return Outcome::NoRoom;
        _records->emplace_back(std::move(record));
    }
    _methodCounts[method] = count;
    return _records ? Outcome::Held : Outcome::Lost;
}

Array EventBatch::take() {
    const MutexLock lock(_lock);
    // Only the session's thread takes records, after it has seen some.
    assert(_records);
    Array records = std::move(*_records);
    _records.reset();
    _methodCounts.clear();
    _heldBytes.clear();
    _dropNoted = false;
    return records;
}

void EventBatch::setSessionID(const std::string& sessionID) {
    const MutexLock lock(_lock);
    if (!_records) return;
    for (Value& record : *_records) record.dictionary()->set("_sessionID", sessionID);
}

bool EventBatch::noteDrop() {
    const MutexLock lock(_lock);
    return !std::exchange(_dropNoted, true);
}

}  // namespace quorvane

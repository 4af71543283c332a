#include "platform/formats/ValueBuilder.h"

#include "platform/formats/ValueLimits.h"

namespace quorvane::platform {

bool ValueBuilder::open(bool isDictionary) {
    if (_open.size() == kMaximumDepth) {
        _passedLimit = kTooDeep;
        return false;
    }
    if (!count()) return false;
    _open.emplace_back().isDictionary = isDictionary;
    return true;
}

bool ValueBuilder::close() {
    if (_open.empty()) return false;
    Container closed = std::move(_open.back());
    _open.pop_back();
    return closed.isDictionary ? put(Dictionary::fromEntries(std::move(closed.entries)))
                               : put(std::move(closed.elements));
}

bool ValueBuilder::setKey(std::string key) {
    if (!isDictionaryOpen() || _open.back().key) return false;
    _open.back().key = std::move(key);
    return true;
}

bool ValueBuilder::add(Value value) {
    return count() && put(std::move(value));
}

bool ValueBuilder::count() {
    if (++_values <= kMaximumValues) return true;
    _passedLimit = kTooLarge;
    return false;
}

bool ValueBuilder::put(Value value) {
    if (_open.empty()) {
        if (!_root) _root = std::move(value);
        return true;
    }
    Container& in = _open.back();
    if (!in.isDictionary) {
        in.elements.push_back(std::move(value));
        return true;
    }
    if (!in.key) return false;
    in.entries.push_back({*std::move(in.key), std::move(value)});
    in.key.reset();
    return true;
}

}  // namespace quorvane::platform

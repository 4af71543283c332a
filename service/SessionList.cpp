#include "service/SessionList.h"

#include <algorithm>

namespace quorvane {

QuorvanedSession* SessionList::getFirstSessionWithHierarchy(std::int64_t level) const {
    const auto found = _firstOfEachLevel.find(level);
    return found != _firstOfEachLevel.end() ? found->second : nullptr;
}

void SessionList::append(QuorvanedSession& session) {
    _members.push_back({&session, std::nullopt});
}

void SessionList::setLevel(const QuorvanedSession& session, std::int32_t level) {
    const auto member = std::find_if(_members.begin(), _members.end(),
                                     [&](const Member& each) { return each.session == &session; });
    if (member == _members.end()) return;
    member->level = level;
    findFirsts();
}

void SessionList::remove(const QuorvanedSession& session) {
    std::erase_if(_members, [&](const Member& each) { return each.session == &session; });
    findFirsts();
}

void SessionList::findFirsts() {
    _firstOfEachLevel.clear();
    for (const auto& [session, level] : _members)
        if (level) _firstOfEachLevel.try_emplace(*level, session);
}

}  // namespace quorvane

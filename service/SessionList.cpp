#include "service/SessionList.h"

#include <algorithm>

namespace quorvane {

QuorvanedSession* SessionList::getFirstSessionWithHierarchy(std::int64_t level) const {
    const auto found = _firstOfEachLevel.find(level);
    return found != _firstOfEachLevel.end() ? found->second : nullptr;
}

void SessionList::append(QuorvanedSession& session, std::optional<std::int64_t> level) {
    _members.push_back({&session, level});
    if (level) _firstOfEachLevel.try_emplace(*level, &session);
}

void SessionList::setLevel(const QuorvanedSession& session, std::int32_t level) {
    const auto member = find(session);
    if (member == _members.end()) return;
    member->level = level;
    findFirsts();
}

std::optional<std::int64_t> SessionList::remove(const QuorvanedSession& session) {
    const auto member = find(session);
    if (member == _members.end()) return std::nullopt;
    const auto level = member->level;
    _members.erase(member);
    findFirsts();
    return level;
}

std::vector<SessionList::Member>::iterator SessionList::find(const QuorvanedSession& session) {
    return std::find_if(_members.begin(), _members.end(),
                        [&](const Member& each) { return each.session == &session; });
}

void SessionList::findFirsts() {
    _firstOfEachLevel.clear();
    for (const auto& [session, level] : _members)
        if (level) _firstOfEachLevel.try_emplace(*level, session);
}

}  // namespace quorvane

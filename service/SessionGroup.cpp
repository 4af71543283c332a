#include "service/SessionGroup.h"

#include <algorithm>
#include <cassert>

namespace quorvane {

QuorvanedSession* SessionGroup::getFirstSessionWithHierarchy(std::int64_t level) const {
    const auto found = _firstOfEachLevel.find(level);
    return found != _firstOfEachLevel.end() ? found->second : nullptr;
}

void SessionGroup::append(QuorvanedSession& session, std::optional<std::int32_t> level) {
    _members.push_back({&session, level});
    if (level) _firstOfEachLevel.try_emplace(*level, &session);
}

void SessionGroup::setLevel(const QuorvanedSession& session, std::int32_t level) {
    const auto member = find(session);
    assert(member != _members.end() && "only sessions that are filed here change their level here");
    member->level = level;
    findFirsts();
}

std::optional<std::int32_t> SessionGroup::remove(const QuorvanedSession& session) {
    const auto member = find(session);
    assert(member != _members.end() && "a session is removed from the group that it is filed in");
    const auto level = member->level;
    _members.erase(member);
    findFirsts();
    return level;
}

std::vector<SessionGroup::Member>::iterator SessionGroup::find(const QuorvanedSession& session) {
    return std::find_if(_members.begin(), _members.end(),
                        [&](const Member& each) { return each.session == &session; });
}

void SessionGroup::findFirsts() {
    _firstOfEachLevel.clear();
    for (const auto& [session, level] : _members)
        if (level) _firstOfEachLevel.try_emplace(*level, session);
}

}  // namespace quorvane

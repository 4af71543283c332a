#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace quorvane {

class QuorvanedSession;

/// The sessions of one group in the order of filing, each with its level. Borrows them. Not thread-safe.
class SessionGroup {
  public:
    struct Member {
        QuorvanedSession* session;
        /// 0 is the top. Nothing while the session's first backends are being set up: until they know their
        /// level they all stand at the top, where others must not take the session for their parent.
        std::optional<std::int32_t> level;
    };

    bool empty() const { return _members.empty(); }
    const std::vector<Member>& members() const { return _members; }

    /// The first session of the level, or null.
    QuorvanedSession* getFirstSessionWithHierarchy(std::int64_t level) const;
    /// The first session of every level that has one, from the top down.
    const std::map<std::int64_t, QuorvanedSession*>& firstOfEachLevel() const { return _firstOfEachLevel; }

    /// Puts the session at the end.
    void append(QuorvanedSession& session, std::optional<std::int32_t> level);
    void setLevel(const QuorvanedSession& session, std::int32_t level);
    /// Gives the level that the session had.
    std::optional<std::int32_t> remove(const QuorvanedSession& session);

  private:
    std::vector<Member>::iterator find(const QuorvanedSession& session);
    void findFirsts();

    std::vector<Member> _members;
    /// Kept, because whoever brings a whole group up to date asks for every member's ancestors.
    std::map<std::int64_t, QuorvanedSession*> _firstOfEachLevel;
};

}  // namespace quorvane

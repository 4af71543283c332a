#pragma once

#include <sys/types.h>

namespace quorvane {

/// Which users' sessions may belong to one group. Immutable.
class GroupSharing {
  public:
    enum class Users { System, All, None };  ///< In the order of the setting's words.

    /// System users group with each other, every other user's sessions only with that user's own.
    GroupSharing() = default;
    /// As the default "share_groups_between_users" and the system's login.defs say now.
    static GroupSharing fromDefaults();

    /// The same number for two users whose sessions may belong to one group.
    uid_t circleOf(uid_t user) const;

  private:
    GroupSharing(Users users, uid_t lastSystemUser) : _users(users), _lastSystemUser(lastSystemUser) {}

    Users _users = Users::System;
    uid_t _lastSystemUser = 999;
};

}  // namespace quorvane

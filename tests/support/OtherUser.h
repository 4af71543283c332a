#pragma once

#include "tests/support/BusClient.h"

#include <grp.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

namespace quorvane::test {

inline constexpr uid_t kNobody = 65534;

/// A socket of a process of the user nobody, who belongs to the group.
inline platform::UniqueDescriptor socketOfNobody(const std::string& path, gid_t group) {
    EXPECT_EQ(::setgroups(1, &group), 0);
    EXPECT_EQ(::setegid(kNobody), 0);
    EXPECT_EQ(::seteuid(kNobody), 0);
    auto socket = connectSocket(path);
    EXPECT_EQ(::seteuid(0), 0);
    EXPECT_EQ(::setegid(0), 0);
    EXPECT_EQ(::setgroups(0, nullptr), 0);
    return socket;
}

}  // namespace quorvane::test

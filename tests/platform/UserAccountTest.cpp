#include "platform/base/UserAccount.h"

namespace quorvane::platform {
namespace {

using Slot = UserAccount::Slot;

class UserAccountTest : public testing::Test {
  protected:
    void TearDown() override { UserAccount::setBounds(Slot::Bytes, _bounds); }

    std::size_t takeAll(uid_t user) {
        std::size_t taken = 0;
        while (auto charge = UserAccount::of(user)->charge(Slot::Bytes, 1)) {
            _charges.push_back(*std::move(charge));
            ++taken;
        }
        return taken;
    }

    const UserAccount::Bounds _bounds = UserAccount::bounds(Slot::Bytes);
    std::vector<UserAccount::Charge> _charges;
};

TEST_F(UserAccountTest, UsersWhoTakeAllTheyCanLeaveTheReserveToRootAndToThoseWhoHaveNothing) {
    UserAccount::setBounds(Slot::Bytes, {50, 80});
    EXPECT_EQ(takeAll(1), 50u) << "one user's bound";
    EXPECT_EQ(takeAll(2), 20u) << "but for the reserve";
    EXPECT_EQ(takeAll(3), 1u);
    EXPECT_EQ(takeAll(4), 1u);
    EXPECT_EQ(takeAll(0), 8u);
    EXPECT_EQ(takeAll(5), 0u) << "all";
    EXPECT_TRUE(UserAccount::of(5)->charge(Slot::Files, 1)) << "every slot is for itself";
}

TEST_F(UserAccountTest, WhatIsTakenIsGivenBackOnceByWhoeverHoldsTheCharge) {
    UserAccount::setBounds(Slot::Bytes, {50, 80});
    const auto account = UserAccount::of(1);
    auto charge = account->charge(Slot::Bytes, 50);
    ASSERT_TRUE(charge);
    UserAccount::Charge moved = *std::move(charge);
    EXPECT_FALSE(UserAccount::of(1)->charge(Slot::Bytes, 1)) << "it is the same account";
    UserAccount::setBounds(Slot::Bytes, {60, 80});
    EXPECT_FALSE(moved.grow(11));
    EXPECT_TRUE(moved.grow(10));
    EXPECT_EQ(UserAccount::takenInAll(Slot::Bytes), 60u);
    EXPECT_FALSE(account->charge(Slot::Bytes, static_cast<std::size_t>(-10))) << "no sum overflows";
    moved = {};
    EXPECT_EQ(account->taken(Slot::Bytes), 0u);
    EXPECT_EQ(takeAll(1), 60u);
}

}  // namespace
}  // namespace quorvane::platform

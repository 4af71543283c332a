#include "tests/service/ChainFixture.h"

#include <array>
#include <cstdint>

namespace quorvane::test {
namespace {

constexpr std::size_t kIdentifierSize = 24;

/// What an identifier starts with if it hangs below the other one.
std::string below(const std::string& parent) {
    return parent + ".";
}

/// The last part of a combined identifier.
std::string own(const std::string& identifier) {
    return identifier.substr(identifier.rfind('.') + 1);
}

using HierarchyChainTest = ChainFixture;

TEST_F(HierarchyChainTest, TheOrderInWhichThreeLevelsComeDoesNotMatter) {
    const std::array<std::unique_ptr<ChainClient>, 3> clients{client(Place::Top, {.batches = true}),
                                                              client(Place::Middle, {.batches = true}),
                                                              client(Place::Bottom, {.batches = true})};
    // One group however its name is written.
    const std::array<std::string, 3> spellings{"Order", "ORDER", "order"};
    std::array<int, 3> order{0, 1, 2};
    std::int64_t firstOfRound = 0;
    do {
        firstOfRound += 10;
        const std::string round = std::to_string(firstOfRound);
        for (const int level : order) {
            EXPECT_TRUE(clients.at(level)->start(spellings.at(level) + round));
            // Held, so that it goes out with what is known in the end.
            EXPECT_FALSE(clients.at(level)->send(firstOfRound + level));
        }
        for (const auto& client : clients) EXPECT_TRUE(client->flush());
        const std::string top = postedUnder(firstOfRound);
        const std::string middle = postedUnder(firstOfRound + 1);
        const std::string bottom = postedUnder(firstOfRound + 2);
        EXPECT_EQ(top.size(), kIdentifierSize);
        EXPECT_EQ(middle, below(top) + own(middle)) << round;
        EXPECT_EQ(bottom, below(middle) + own(bottom)) << round;
        EXPECT_EQ(bottom.size(), 3 * kIdentifierSize + 2);
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(firstOfRound, 60);
}

TEST_F(HierarchyChainTest, AMissingParentCutsTheIdentifierUntilItComes) {
    const auto bottom = started(Place::Bottom, "Gap");
    const std::string alone = postedBy(*bottom, 1);
    EXPECT_EQ(alone.size(), kIdentifierSize);
    auto top = started(Place::Top, "Gap");
    EXPECT_EQ(postedBy(*bottom, 2), alone) << "nobody stands between them";
    const auto middle = started(Place::Middle, "Gap");
    const std::string complete = postedBy(*middle, 3);
    EXPECT_EQ(complete, below(postedBy(*top, 4)) + own(complete));
    EXPECT_EQ(postedBy(*bottom, 5), below(complete) + alone);

    top->leave();
    const auto lowest = started(Place::Bottom, "Gap");
    const std::string incomplete = postedBy(*lowest, 6);
    EXPECT_EQ(incomplete, below(own(complete)) + own(incomplete));
    EXPECT_TRUE(_device.logs("incomplete parentSessionID is '" + own(complete) + "'\n"));
    top = started(Place::Top, "Gap");
    EXPECT_EQ(postedBy(*lowest, 7), below(postedBy(*top, 8)) + incomplete);
}

TEST_F(HierarchyChainTest, OfTwoTopsTheOneThatCameFirstCountsAndTheOtherOnceItHasGone) {
    const auto first = started(Place::Top, "Pair");
    const auto second = started(Place::Top, "Pair");
    const auto child = started(Place::Middle, "Pair");
    const std::string ofFirst = postedBy(*first, 1);
    const std::string ofSecond = postedBy(*second, 2);
    const std::string whole = postedBy(*child, 3);
    const std::string ofChild = own(whole);
    EXPECT_EQ(whole, below(ofFirst) + ofChild);

    first->leave();
    EXPECT_EQ(postedBy(*child, 4), below(ofFirst) + ofChild) << "until something changes";
    first->start("Pair");
    EXPECT_EQ(postedBy(*child, 5), below(ofSecond) + ofChild) << "who comes back comes last";
    EXPECT_NE(postedBy(*first, 6), ofFirst);
}

TEST_F(HierarchyChainTest, AClientThatChangesItsNamesChangesItsParent) {
    const auto top = started(Place::Top, "One");
    const auto otherTop = started(Place::Top, "Two");
    const auto middle = started(Place::Middle, "One");
    const auto bottom = started(Place::Bottom, "One");
    const std::string ofTop = postedBy(*top, 1);
    const std::string ofOther = postedBy(*otherTop, 2);
    const std::string ofMiddle = own(postedBy(*middle, 3));
    EXPECT_EQ(postedUnder(3), below(ofTop) + ofMiddle);

    EXPECT_TRUE(middle->rename("tWO"));
    EXPECT_EQ(postedBy(*middle, 4), below(ofOther) + ofMiddle);
    const std::string ofBottom = own(postedBy(*bottom, 5));
    EXPECT_EQ(postedUnder(5), below(ofTop) + below(ofMiddle) + ofBottom) << "it was told nothing new";
    EXPECT_TRUE(bottom->rename("two"));
    EXPECT_EQ(postedBy(*bottom, 6), below(ofOther) + below(ofMiddle) + ofBottom);

    EXPECT_TRUE(middle->rename("Nobody's"));
    EXPECT_EQ(postedBy(*middle, 7), below(ofOther) + ofMiddle) << "until another parent comes";
}

}  // namespace
}  // namespace quorvane::test

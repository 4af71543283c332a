#include "tests/service/ChainFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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

class HierarchyChainTest : public ChainFixture {
  protected:
    /// Has the client send the event; the identifier under which it was posted.
    std::string postedBy(ChainProcess& process, std::int64_t number) {
        EXPECT_EQ(process.tell(send(number)), "1 answered");
        return postedUnder(number);
    }
};

TEST_F(HierarchyChainTest, TheOrderInWhichThreeLevelsComeDoesNotMatter) {
    const std::array<std::unique_ptr<ChainProcess>, 3> clients{process(Place::Top, {.batches = true}),
                                                               process(Place::Middle, {.batches = true}),
                                                               process(Place::Bottom, {.batches = true})};
    // One group however its name is written.
    const std::array<std::string, 3> spellings{"Order", "ORDER", "order"};
    std::array<int, 3> order{0, 1, 2};
    std::int64_t firstOfRound = 0;
    do {
        firstOfRound += 10;
        const std::string round = std::to_string(firstOfRound);
        for (const int level : order) {
            EXPECT_EQ(clients.at(level)->tell(startAs(spellings.at(level) + round)), "httppost");
            // Held, so that it goes out with what is known in the end.
            EXPECT_EQ(clients.at(level)->tell(send(firstOfRound + level)), "0 answered");
        }
        for (const auto& client : clients) EXPECT_EQ(client->tell("flush"), "answered");
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
    EXPECT_TRUE(_device.logs("<6>syncReportingStates: child session " + std::to_string(bottom->sessionID()) +
                             " (backend httppost) is missing its parent\n"));
    EXPECT_TRUE(
        _device.logs("<6>parentSessionIDStringForSession: Found a gap in hierarchy (one of parents "
                     "missing): incomplete parentSessionID is '(null)'\n"));
    const std::string alone = postedBy(*bottom, 1);
    EXPECT_EQ(alone.size(), kIdentifierSize);
    const auto top = started(Place::Top, "Gap");
    EXPECT_EQ(postedBy(*bottom, 2), alone) << "nobody stands between them";
    const auto middle = started(Place::Middle, "Gap");
    const std::string complete = postedBy(*middle, 3);
    EXPECT_EQ(complete, below(postedBy(*top, 4)) + own(complete));
    EXPECT_EQ(postedBy(*bottom, 5), below(complete) + alone);

    const auto headless = started(Place::Middle, "Headless");
    const auto lowest = started(Place::Bottom, "Headless");
    const std::string second = postedBy(*headless, 6);
    EXPECT_EQ(second.size(), kIdentifierSize);
    const std::string incomplete = postedBy(*lowest, 7);
    EXPECT_EQ(incomplete, below(second) + own(incomplete));
    EXPECT_TRUE(_device.logs("incomplete parentSessionID is '" + second + "'\n"));
    const auto head = started(Place::Top, "Headless");
    const std::string first = postedBy(*head, 8);
    EXPECT_EQ(postedBy(*lowest, 9), below(first) + incomplete);
}

TEST_F(HierarchyChainTest, OfTwoTopsTheOneThatCameFirstCountsAndTheOtherOnceItHasGone) {
    const auto first = started(Place::Top, "Pair");
    const auto second = started(Place::Top, "Pair");
    const auto child = started(Place::Middle, "Pair");
    const std::string ofFirst = postedBy(*first, 1);
    const std::string ofSecond = postedBy(*second, 2);
    const std::string ofChild = own(postedBy(*child, 3));
    EXPECT_EQ(postedUnder(3), below(ofFirst) + ofChild);

    first->leave(_device);
    EXPECT_EQ(postedBy(*child, 4), below(ofFirst) + ofChild) << "until something changes";
    first->tell(startAs("Pair"));
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

    EXPECT_EQ(middle->tell(renameTo("tWO")), "httppost");
    EXPECT_EQ(postedBy(*middle, 4), below(ofOther) + ofMiddle);
    const std::string ofBottom = own(postedBy(*bottom, 5));
    EXPECT_EQ(postedUnder(5), below(ofTop) + below(ofMiddle) + ofBottom) << "it was told nothing new";
    EXPECT_EQ(bottom->tell(renameTo("two")), "httppost");
    EXPECT_EQ(postedBy(*bottom, 6), below(ofOther) + below(ofMiddle) + ofBottom);

    // A top that moves in behind another one changes nothing; once it is alone there, it counts.
    top->tell(renameTo("Two"));
    EXPECT_EQ(postedBy(*bottom, 7), below(ofOther) + below(ofMiddle) + ofBottom);
    otherTop->leave(_device);
    top->tell(renameTo("Three"));
    top->tell(renameTo("Two"));
    EXPECT_EQ(postedBy(*bottom, 8), below(ofTop) + below(ofMiddle) + ofBottom);
}

TEST_F(HierarchyChainTest, ChildrenReportAsTheirParentDoes) {
    const auto middle = started(Place::Middle, "State");
    const auto bottom = started(Place::Bottom, "State");
    EXPECT_EQ(bottom->tell(send(1)), "1 answered");

    std::int64_t number = 10;
    for (const Place place : {Place::SilentTop, Place::SampledOutTop}) {
        const auto silent = process(place);
        EXPECT_EQ(silent->tell(startAs("State")), "none");
        EXPECT_EQ(middle->tell(renameTo("State")), "none");
        EXPECT_EQ(middle->tell(send(++number)), "0 answered");
        // A fresh child falls silent as well, and so does one that was there, however far below.
        const auto late = process(Place::Middle);
        EXPECT_EQ(late->tell(startAs("State")), "none");
        late->leave(_device);
        EXPECT_EQ(bottom->tell(renameTo("State")), "none");
        EXPECT_EQ(bottom->tell(send(++number)), "0 answered");
        silent->leave(_device);
        EXPECT_EQ(middle->tell(send(++number)), "0 answered") << "as it was left";

        // The parent comes back and reports.
        const auto loud = started(Place::Top, "State");
        EXPECT_EQ(middle->tell(renameTo("State")), "httppost");
        EXPECT_EQ(bottom->tell(renameTo("State")), "httppost");
        EXPECT_EQ(bottom->tell(send(++number)), "1 answered");
        loud->leave(_device);
    }
    EXPECT_FALSE(postedUnder(number).empty());
    std::vector<std::int64_t> posted;
    for (const Dictionary& record : _device.postedEvents(kOurs)) posted.push_back(record.integer("n"));
    EXPECT_THAT(posted, testing::UnorderedElementsAre(1, 14, 18)) << "what a silent session is given is lost";
}

}  // namespace
}  // namespace quorvane::test

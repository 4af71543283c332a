#include "storebag/SelectStorebag.h"

#include "storebag/StorebagNames.h"
#include "tests/storebag/StorebagFixture.h"

#include <limits>

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const std::string kTag = "fetchStorebagForEnvironmentAndClientType: ";

struct Selected {
    std::optional<Dictionary> section;
    std::int32_t maxAge = -1;
    std::optional<std::string> version;
    bool notModified = false;
};

Selected select(std::int32_t clientType, std::optional<std::string> lastModified = std::nullopt) {
    Selected selected;
    selected.section = fetchStorebagForEnvironmentAndClientType(clientType, selected.maxAge, selected.version,
                                                                selected.notModified, &lastModified);
    return selected;
}

class SelectStorebagTest : public StorebagFixture {
  protected:
    static Dictionary section(const std::string& name) { return {{"httppost", Dictionary{{"name", name}}}}; }

    /// A bag with the sections, each marked with its own name.
    static Dictionary bagWith(const std::vector<std::string>& sections) {
        Dictionary bag{{"version", "3.1"}};
        for (const std::string& name : sections) bag.set(name, section(name));
        return bag;
    }

    static std::string fetchFailed(int clientType) {
        return fmt::format("<3>{}Could not fetch storebag for client type {}", kTag, clientType);
    }
};

TEST_F(SelectStorebagTest, ClientTypesAreConfiguredFromTheirOwnBags) {
    const std::vector<std::string> names{"pelmark",  "stremcore", "confluxa", "vistabox",
                                         "tunewave", "hintry",    "confluxa"};
    for (std::size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(storebagNameForClientType(static_cast<std::int32_t>(5 + i)), names[i]);
    for (const std::int32_t type :
         {std::numeric_limits<std::int32_t>::min(), -1, 0, 4, 12, std::numeric_limits<std::int32_t>::max()})
        EXPECT_EQ(storebagNameForClientType(type), std::nullopt) << type;

    EXPECT_EQ(select(0).section, std::nullopt);
    EXPECT_EQ(_server.requestCount(), 0u);
    EXPECT_THAT(logLines(), ElementsAre("<3>" + kTag + "Could not find storebag name for client type 0"));
    EXPECT_EQ(select(3).section, std::nullopt) << "only type zero is refused unasked";
    EXPECT_EQ(_server.requests().front().target, "/bags/(null)?version=7.1");
    EXPECT_EQ(lines().back(), fetchFailed(3));
}

TEST_F(SelectStorebagTest, TheEnvironmentPicksTheSectionAndSeedFallsBackToRelease) {
    using enum EnvironmentType;
    const std::vector<std::string> all{"", "development", "velmora_internal", "seed", "release"};
    const std::string warning = "<4>" + kTag + "Seed section is missing in the storebag.";
    const auto missing = [](const std::string& key) {
        return fmt::format("<3>{}Could not find storebag for client type 8 with {} environment", kTag, key);
    };
    const struct {
        EnvironmentType environment;
        std::vector<std::string> sections;
        std::string picked;
        std::vector<std::string> lines;
    } cases[] = {
        {Development, all, "development", {}},
        {Internal, all, "velmora_internal", {}},
        {Seed, all, "seed", {}},
        {Release, all, "release", {}},
        {None, all, "", {missing("(null)")}},
        {Seed, {"development", "release"}, "release", {warning}},
        {Seed, {"development"}, "", {warning, missing("release")}},
        {Internal, {"development", "release"}, "", {missing("velmora_internal")}},
    };
    for (const auto& [environment, sections, picked, expectedLines] : cases) {
        SCOPED_TRACE(static_cast<unsigned>(environment));
        forgetLines();
        replaceEnvironmentType(environment);
        answer(signedBag(bagWith(sections)), {{"Cache-Control", "max-age=60"}});
        const Selected selected = select(8);
        EXPECT_EQ(selected.section, picked.empty() ? std::nullopt : std::optional(section(picked)));
        EXPECT_EQ(selected.version, picked.empty() ? std::nullopt : std::optional<std::string>("3.1"));
        EXPECT_EQ(selected.maxAge, 60);
        EXPECT_THAT(lines(), ElementsAreArray(expectedLines));
    }

    Dictionary bag = bagWith({"release"});
    bag.set("development", "no dictionary");
    answer(signedBag(bag));
    replaceEnvironmentType(Development);
    EXPECT_EQ(select(8).section, std::nullopt);
}

TEST_F(SelectStorebagTest, TheRefreshCycleOverridesTheAnswersAge) {
    const std::vector<std::pair<Value, int>> cycles{
        {300, 300},         {86399, 86399}, {86400, 86400},
        {100000, 86400},    {0, 0},         {-5, -5},
        {1ll << 40, 86400}, {"300", 0},     {~std::uint64_t{0}, 86400},
    };
    for (const auto& [cycle, maxAge] : cycles) {
        forgetLines();
        Dictionary bag = bagWith({"release"});
        bag.set("refresh_cycle", cycle);
        answer(signedBag(bag), {{"Cache-Control", "max-age=7200"}});
        EXPECT_EQ(select(10).maxAge, maxAge);
        EXPECT_THAT(lines(), ElementsAre(fmt::format("<6>{}Store bag override MaxAge={}", kTag, maxAge)));
    }
}

TEST_F(SelectStorebagTest, AFailedFetchOrABagWithoutAVersionIsLoggedAnUnchangedBagIsNot) {
    EXPECT_FALSE(select(6).notModified);
    EXPECT_EQ(lines().back(), fetchFailed(6));

    Dictionary bag{{"release", section("release")}, {"refresh_cycle", 300}};
    for (const bool numbered : {false, true}) {
        forgetLines();
        if (numbered) bag.set("version", 3);
        answer(signedBag(bag), {{"Cache-Control", "max-age=60"}});
        const Selected selected = select(5);
        EXPECT_EQ(selected.section, std::nullopt);
        EXPECT_EQ(selected.maxAge, 60);
        EXPECT_THAT(lines(), ElementsAre(fetchFailed(5)));
    }

    forgetLines();
    answer("", {{"Last-Modified", "today"}}, 304);
    const Selected selected = select(6, "yesterday");
    EXPECT_EQ(selected.section, std::nullopt);
    EXPECT_TRUE(selected.notModified);
    EXPECT_THAT(lines(), IsEmpty());
}

}  // namespace
}  // namespace quorvane

#include "storebag/SelectStorebag.h"

#include "storebag/StorebagNames.h"
#include "tests/storebag/StorebagFixture.h"
#include "util/Environment.h"

#include <fmt/format.h>

#include <limits>
#include <utility>

namespace quorvane {
namespace {

using testing::ElementsAre;
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

    static std::string sectionMissing(int clientType, const std::string& key) {
        return fmt::format("<3>{}Could not find storebag for client type {} with {} environment", kTag,
                           clientType, key);
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
}

TEST_F(SelectStorebagTest, TypeZeroIsRefusedUnasked) {
    EXPECT_EQ(select(0).section, std::nullopt);
    EXPECT_EQ(server().requestCount(), 0u);
    EXPECT_THAT(allLines(), ElementsAre("<3>" + kTag + "Could not find storebag name for client type 0"));
}

TEST_F(SelectStorebagTest, OtherTypesWithoutANameAreAskedFor) {
    EXPECT_EQ(select(3).section, std::nullopt);
    EXPECT_EQ(server().requests().front().target, "/bags/(null)?version=7.1");
    EXPECT_EQ(lines().back(), fetchFailed(3));
}

TEST_F(SelectStorebagTest, TheEnvironmentPicksTheSection) {
    answer(signedBag(bagWith({"development", "velmora_internal", "seed", "release"})));
    for (const auto& [type, name] :
         {std::pair(EnvironmentType::Development, "development"),
          std::pair(EnvironmentType::Internal, "velmora_internal"), std::pair(EnvironmentType::Seed, "seed"),
          std::pair(EnvironmentType::Release, "release")}) {
        replaceEnvironmentType(type);
        const Selected selected = select(6);
        EXPECT_EQ(selected.section, section(name));
        EXPECT_EQ(selected.version, "3.1");
        EXPECT_EQ(selected.maxAge, 86400);
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(SelectStorebagTest, SeedFallsBackToRelease) {
    const std::string warning = "<4>" + kTag + "Seed section is missing in the storebag.";
    replaceEnvironmentType(EnvironmentType::Seed);
    answer(signedBag(bagWith({"development", "release"})));
    EXPECT_EQ(select(8).section, section("release"));
    EXPECT_THAT(lines(), ElementsAre(warning));

    forgetLines();
    answer(signedBag(bagWith({"development"})));
    EXPECT_EQ(select(8).section, std::nullopt);
    EXPECT_THAT(lines(), ElementsAre(warning, sectionMissing(8, "release")));
}

TEST_F(SelectStorebagTest, ABagWithoutTheSectionIsNoUse) {
    Dictionary bag = bagWith({"release", ""});
    bag.set("development", "no dictionary");
    answer(signedBag(bag), {{"Cache-Control", "max-age=60"}});
    for (const auto& [type, key] :
         {std::pair(EnvironmentType::None, "(null)"), std::pair(EnvironmentType::Development, "development"),
          std::pair(EnvironmentType::Internal, "velmora_internal")}) {
        forgetLines();
        replaceEnvironmentType(type);
        const Selected selected = select(9);
        EXPECT_EQ(selected.section, std::nullopt);
        EXPECT_EQ(selected.version, std::nullopt);
        EXPECT_EQ(selected.maxAge, 60);
        EXPECT_THAT(lines(), ElementsAre(sectionMissing(9, key)));
    }
}

TEST_F(SelectStorebagTest, TheRefreshCycleOverridesTheAnswersAge) {
    const std::vector<std::pair<Value, int>> cycles{
        {300, 300}, {86399, 86399}, {86400, 86400},     {100000, 86400},
        {0, 0},     {-5, -5},       {1ll << 40, 86400}, {"300", 0},
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

TEST_F(SelectStorebagTest, ABagWithoutAVersionCountsAsNotFetched) {
    for (const Value& version : {Value(), Value(3)}) {
        forgetLines();
        Dictionary bag = bagWith({"release"});
        bag.set("version", version);
        if (!version.isNumber()) bag.remove("version");
        bag.set("refresh_cycle", 300);
        answer(signedBag(bag), {{"Cache-Control", "max-age=60"}});
        const Selected selected = select(5);
        EXPECT_EQ(selected.section, std::nullopt);
        EXPECT_EQ(selected.maxAge, 60);
        EXPECT_THAT(lines(), ElementsAre(fetchFailed(5)));
    }
}

TEST_F(SelectStorebagTest, AFailedFetchIsLoggedAnUnchangedBagIsNot) {
    EXPECT_FALSE(select(6).notModified);
    EXPECT_EQ(lines().back(), fetchFailed(6));

    forgetLines();
    answer("", {{"Last-Modified", "today"}}, 304);
    const Selected selected = select(6, "yesterday");
    EXPECT_EQ(selected.section, std::nullopt);
    EXPECT_TRUE(selected.notModified);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(SelectStorebagTest, TheBuiltInBagServesEveryEnvironmentForAnHour) {
    answerTooMuch();
    for (const EnvironmentType type : {EnvironmentType::Internal, EnvironmentType::Seed}) {
        replaceEnvironmentType(type);
        const Selected selected = select(11);
        EXPECT_EQ(selected.section, (Dictionary{{"ossel", Dictionary{{"active", true}}}}));
        EXPECT_EQ(selected.maxAge, 3600);
        EXPECT_EQ(selected.version, "1.0.0-Confluxa-Fallback");
    }
}

}  // namespace
}  // namespace quorvane

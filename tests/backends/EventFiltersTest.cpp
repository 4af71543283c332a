#include "backends/EventFilters.h"

#include "backends/QuorvaneBackend.h"

namespace quorvane {
namespace {

TEST(EventFilters, FirstMatchingFilterActs) {
    const Array table{Value(Dictionary{{"key", "_SESSIONID"}, {"action", "sha256"}}),
                      Value(Dictionary{{"key", "_sessionID"}, {"method", 5}, {"action", "remove"}}),
                      Value(Dictionary{{"key", "shielded"}, {"action", "Remove"}}),
                      Value(Dictionary{{"key", "shielded"}, {"action", "remove"}}),
                      Value(Dictionary{{"key", "Gone"}, {"action", "remove"}}),
                      Value(Dictionary{{"key", "byStatus"}, {"status", 2}, {"action", "remove"}}),
                      Value(Dictionary{{"key", "number"}, {"action", "sha256"}}),
                      Value(Dictionary{{"action", "remove"}}),
                      Value("no filter")};
    EventFilters filters;
    filters.createFiltersFromArray(table);
    filters.createFiltersFromArray({});  // Which changes nothing.

    Dictionary event{{"_sessionID", "abc"}, {"_method", 5}, {"_status", 3},  {"shielded", 1}, {"number", 42},
                     {"gone", 1},           {"GONE", 2},    {"byStatus", 1}, {"", "kept"}};
    filters.filterEvent(event);
    EXPECT_EQ(event, (Dictionary{{"_sessionID", QuorvaneBackend::convertIntoSHA256("abc")},
                                 {"number", QuorvaneBackend::convertIntoSHA256("42")},
                                 {"_method", 5},
                                 {"_status", 3},
                                 {"shielded", 1},
                                 {"byStatus", 1},
                                 {"", "kept"}}));

    event.set("_status", 2);
    filters.filterEvent(event);
    EXPECT_FALSE(event.contains("byStatus"));
}

TEST(EventFilters, KeysAreEqualWhateverTheirLettersCase) {
    const Array table{Value(Dictionary{{"key", "caf\u00e9"}, {"action", "remove"}}),
                      Value(Dictionary{{"key", "Mark"}, {"action", "remove"}}),
                      Value(Dictionary{{"key", ""}, {"action", "remove"}})};
    EventFilters filters;
    filters.createFiltersFromArray(table);
    Dictionary event{{"CAF\u00c9", 1}, {"mARK", 1}, {"MAR\u212a", 1}, {"", 1},
                     {"cafe", 1},      {"Mar+", 1}, {"ark", 1}};
    filters.filterEvent(event);
    EXPECT_EQ(event, (Dictionary{{"cafe", 1}, {"Mar+", 1}, {"ark", 1}}));
}

TEST(ListMatchers, TheFlagDecidesOnlyWithoutAListOrAText) {
    const std::string us = "us", upper = "US";
    const Array country{"US"}, letter{"U"}, empty, numbers{Value(7)}, blank{""};
    for (const bool flag : {true, false}) {
        for (const auto match : {matchStringWithList, matchExactStringWithList}) {
            EXPECT_EQ(match(&empty, &us, flag), flag);
            EXPECT_EQ(match(nullptr, nullptr, flag), flag);
            EXPECT_EQ(match(&country, nullptr, flag), !flag);
            EXPECT_TRUE(match(&country, &us, flag));
            EXPECT_FALSE(match(&numbers, &us, flag));
            EXPECT_FALSE(match(&blank, &us, flag));
        }
        EXPECT_TRUE(matchStringWithList(&letter, &upper, flag));
        EXPECT_FALSE(matchExactStringWithList(&letter, &upper, flag));
    }
}

}  // namespace
}  // namespace quorvane

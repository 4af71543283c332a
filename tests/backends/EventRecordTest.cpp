#include "backends/EventRecord.h"

#include "backends/EventFilters.h"
#include "tests/backends/BackendFixture.h"

namespace quorvane {
namespace {

class EventRecordTest : public BackendFixture {
  protected:
    static std::shared_ptr<HTTPSPostBackend> equippedBackend(const Dictionary& entry = {}) {
        auto backend = enabledBackend(entry);
        backend->setSessionID(77);
        backend->setCompType(7);
        backend->setClientVersion(12);
        backend->setProductVersion("9.1");
        backend->setBuildVersion("13A5");
        backend->setHardwareType("Fern3,1");
        backend->setSelfVersion("7.1");
        backend->setStartTimestamp({125, 900'000});
        backend->setCombinedSessionIDString("parent.own");
        return backend;
    }
};

TEST_F(EventRecordTest, LaysTheSessionsFactsOverThePayload) {
    auto backend = equippedBackend();
    const Dictionary payload{
        {"Alpha", 1}, {"_method", "mine"}, {"_n", true}, {"zeta", "é\n"}, {"eventTime", 3}};
    Dictionary record = onlyEventIn(send(*backend, payload, 5, 6));

    const Value* time = record.find("_clientTS");
    ASSERT_NE(time, nullptr);
    EXPECT_NEAR(time->real(), 124.6, 1e-9);
    EXPECT_EQ(record.find("eventTime")->real(), time->real());
    EXPECT_TRUE(record.contains("_timezoneOffset"));
    for (const char* key : {"_clientTS", "eventTime", "_timezoneOffset"}) record.remove(key);
    EXPECT_EQ(
        record.description(),
        "{Alpha = 1; _build = 13A5; _clientVersion = 12; _eventNumber = 1; _internal = 0; _method = 5; _n = 1; _osVersion = 9.1; _productFamily = Fernlight; _productModel = Fern3,1; _reportVers = 7.1; _sender = CFX; _sessionID = parent.own; _startTS = 120; _status = 6; zeta = é\n;}");
}

TEST_F(EventRecordTest, InternalBuildsWithExtrasReportNumbersAndTheDevice) {
    auto backend = equippedBackend({{"extras_on_internal", 1}, {"post_url", "ftp://nowhere.invalid"}});
    backend->setUdid("device-text");
    EXPECT_EQ(*onlyEventIn(send(*backend, {})).string("_sessionID"), "parent.own");

    backend->setIsInternal(true);
    const auto answer = send(*backend, {});
    EXPECT_EQ(onlyEventIn(answer).integer("_sessionID"), 77);
    EXPECT_EQ(onlyEventIn(answer).integer("_internal"), 1);
    EXPECT_EQ(*platform::parseJson(*answer)->dictionary()->string("clientId"), "device-text");

    backend->setCompType(8);
    replaceEnvironmentType(EnvironmentType::Seed);
    EXPECT_EQ(onlyEventIn(send(*backend, {})).integer("_internal"), 2);
    EXPECT_TRUE(onlyEventIn(send(*backend, {})).string("_sessionID"));

    backend->setUdid(nullptr);
    const auto withoutClient = platform::parseJson(send(*backend, {}).value_or(""));
    ASSERT_TRUE(withoutClient);
    EXPECT_EQ(withoutClient->dictionary()->size(), 1u) << "no client identifier, no events";
}

TEST_F(EventRecordTest, WhatChangesAfterAnEventIsInTheNextOne) {
    auto backend = equippedBackend();
    const auto expectNext = [&](const char* key, const Value& value) {
        const Dictionary record = onlyEventIn(send(*backend, {{"mine", 1}}));
        EXPECT_TRUE(record.contains(key) && record.find(key)->description() == value.description())
            << key << " in " << record.description();
    };
    expectNext("_eventNumber", 1);
    backend->setClientVersion(13);
    expectNext("_clientVersion", 13);
    backend->setProductVersion("9.2");
    expectNext("_osVersion", "9.2");
    backend->setBuildVersion("13B1");
    expectNext("_build", "13B1");
    backend->setHardwareType("Fern4,1");
    expectNext("_productModel", "Fern4,1");
    backend->setProductFamily("Mosslight");
    expectNext("_productFamily", "Mosslight");
    backend->setSelfVersion("8.2");
    expectNext("_reportVers", "8.2");
    backend->setStartTimestamp({185, 0});
    expectNext("_startTS", 180);
    backend->setCompType(1);
    expectNext("_sender", "SYS");
    backend->setCorrelatedSessionID("other.own");
    expectNext("_sessionID", "other.own");
    backend->setUserInfoDict(shared({{"_method", "user"}, {"_sessionID", "user"}}));
    expectNext("_method", "user");
    expectNext("_sessionID", "user");
    backend->setUserInfoDict(nullptr);
    expectNext("_method", 5);
    backend->setCombinedSessionIDString(std::nullopt);
    EXPECT_FALSE(onlyEventIn(send(*backend, {})).contains("_sessionID"));

    backend = backendWithClients(
        {Value(Dictionary{{"extras_on_internal", 1}, {"post_url", "ftp://nowhere.invalid"}})});
    backend->setCompType(7);
    backend->setIsInternal(true);
    backend->setUdid("device-text");
    constexpr unsigned atOnce = 1;
    EXPECT_FALSE(onlyEventIn(send(*backend, {}, 0, 0, atOnce)).contains("_sessionID"));
    backend->updateState();
    expectNext("_sessionID", 0);
    backend->setSessionID(78);
    expectNext("_sessionID", 78);
}

TEST_F(EventRecordTest, UserInfoReplacesAndFiltersComeLast) {
    auto backend = personalBackend(
        permissiveEntry(),
        shared({{"ClientName", "Mail"}, {"kind", "user"}, {"Secret", "user"}, {"_status", "user"}}));
    const Dictionary record =
        onlyEventIn(send(*backend, {{"kind", "event"}, {"secret", "event"}, {"SECRET", 1}}));
    EXPECT_EQ(*record.string("kind"), "user");
    EXPECT_EQ(*record.string("ClientName"), "Mail");
    EXPECT_EQ(*record.string("_status"), "user");
    // Facts that are missing are left out as well.
    for (const char* key :
         {"secret", "Secret", "SECRET", "_build", "_osVersion", "_productModel", "_sessionID"})
        EXPECT_FALSE(record.contains(key)) << key;
}

TEST_F(EventRecordTest, SessionStopTellsTheSamplingSettings) {
    auto backend = enabledBackend();
    Dictionary record = onlyEventIn(send(*backend, {{"Batch", "mine"}}, 0, 1));
    EXPECT_EQ(record.integer("Opt"), 0);
    EXPECT_EQ(record.integer("SamplingThreshold"), -1);
    EXPECT_EQ(record.integer("OverrideSampling"), -1);
    EXPECT_EQ(record.find("Batch")->kind(), Value::Kind::Signed);

    backend->setSamplingThreshold(Value(0.3));
    EXPECT_EQ(*onlyEventIn(send(*backend, {}, 0, 1)).find("SamplingThreshold"), Value(0.3));
    EXPECT_FALSE(onlyEventIn(send(*backend, {}, 0, 2)).contains("Opt"));

    record = onlyEventIn(backend->sendMessage(nullptr, {1, 0}, 0, 1, MessageFlag{0}));
    EXPECT_FALSE(record.contains("Opt"));
    EXPECT_EQ(logged("<3>HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil"), 1u);
}

TEST_F(EventRecordTest, ValuesThatJsonCannotCarryCostOnlyTheirKey) {
    const Dictionary payload{{"array", Array{1}},
                             {"data", Data{1}},
                             {"date", Date{1'500'000}},
                             {"dictionary", Dictionary{}},
                             {"text", "kept"}};
    const Dictionary record = onlyEventIn(send(*enabledBackend(), payload));
    EXPECT_EQ(*record.string("text"), "kept");
    ASSERT_TRUE(record.contains("date"));
    EXPECT_EQ(record.find("date")->real(), 1.5);
    for (const char* key : {"array", "data", "dictionary"}) EXPECT_FALSE(record.contains(key)) << key;
    EXPECT_EQ(logged("unable to handle key: "), 3u);
    EXPECT_EQ(
        logged(
            "<4>HTTPSPostBackend(createMessageForPostAndLogging): NSJSONSerialization unable to handle key: array, value: (1)"),
        1u);
}

TEST(SenderCode, EveryClientTypeHasItsOwnAndAnyOtherNumberIsNeutral) {
    std::vector<std::string_view> codes;
    for (const std::int32_t type : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, -1, 12})
        codes.push_back(senderCode(type));
    EXPECT_THAT(codes, testing::ElementsAre("GEN", "SYS", "NET", "LOC", "MED", "PLM", "STC", "CFX", "VBX",
                                            "TWV", "HNT", "CFL", "UNK", "UNK"));
}

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

#include "backends/OsselBackend.h"

#include "backends/JoularyBackend.h"
#include "tests/backends/BackendFixture.h"

#include <limits>

namespace quorvane {
namespace {

using testing::EndsWith;
using testing::MatchesRegex;

class OsselBackendTest : public BackendFixture {
  protected:
    void install(const std::string& bundle) const {
        std::filesystem::create_directories(_root / "usr/lib/quorvane");
        std::filesystem::copy_file(bundle, _root / "usr/lib/quorvane/OsselAdaptor.so");
    }

    static std::shared_ptr<QuorvaneBackend> backendForClientType(std::int32_t clientType) {
        return QuorvaneBackend::newBackendWithName("ossel", shared({}), "Fernlight", clientType);
    }

    std::string messages() const { return read("var/lib/quorvane/ossel-messages.log"); }

    /// Every event costs the line alone.
    void expectRefusals(QuorvaneBackend& backend, const Dictionary& message, const std::string& line) const {
        for (int times = 0; times < 2; ++times) EXPECT_EQ(send(backend, message), std::nullopt);
        EXPECT_EQ(logged("<3>OsselBackend(sendMessage): " + line), 2u);
        EXPECT_EQ(messages(), "");
    }

    const std::string kNoSelector =
        " does not respond to forwarding selector sendMessageWithMethod:respCode:dict:";
};

TEST_F(OsselBackendTest, ForwardsEveryEventToTheAdaptor) {
    install(QUORVANE_BUNDLE_SAMPLE);
    const auto backend = backendForClientType(7);
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(logged("<6>OsselBackend(initWithName): Loading Ossel adaptor class for client type 7"), 1u);
    EXPECT_EQ(send(*backend,
                   {{"level", -80},
                    {"name", "a \"b\"\n"},
                    {"list", Array{Value(true), Value(1.5), Value(Data{1, 255})}},
                    {"inner", Dictionary{{"at", Date{1'763'280'000'000'000}}}}},
                   65535, 404),
              std::nullopt);
    EXPECT_THAT(
        messages(),
        MatchesRegex("[0-9]+ method=65535 respCode=404 \\{\"inner\": \\{\"at\": date\\(1763280000\\)\\}, "
                     "\"level\": -80, \"list\": \\[true, 1\\.5, <01ff>\\], "
                     "\"name\": \"a \\\\\"b\\\\\"\\\\x0a\"\\}\n"));

    EXPECT_EQ(send(*backend, {{"a\x1b", std::numeric_limits<std::uint64_t>::max()},
                              {"far", Date{9'000'000'000'000'000}}}),
              std::nullopt);
    EXPECT_THAT(messages(), EndsWith("{\"a\\x1b\": 18446744073709551615, \"far\": date(beyond libplist)}\n"))
        << "what XML cannot hold";

    backendForClientType(11)->sendMessage(nullptr, {0, 0}, 0, 1, MessageFlag{0});
    EXPECT_THAT(messages(), EndsWith(" method=0 respCode=1 (null)\n"));
    EXPECT_EQ(logged("<3>"), 0u);
}

TEST_F(OsselBackendTest, OneProductHasNoAdaptorOthersHaveThoseOfTwoClientTypes) {
    write("etc/quorvane/device.toml", "ProductType = \"Korvel\"\n");
    EXPECT_EQ(backendForClientType(7), nullptr);
    EXPECT_EQ(logged("<3>QuorvaneBackend(newBackendWithName): ossel"), 1u);
    EXPECT_EQ(logged("OsselBackend"), 0u);
    write("etc/quorvane/device.toml", "");
    for (const std::int32_t type : {-7, 0, 5, 6, 8, 10, 12, std::numeric_limits<std::int32_t>::max()}) {
        EXPECT_EQ(backendForClientType(type), nullptr);
        EXPECT_EQ(logged("<3>OsselBackend(initWithName): No matching bundle found for client type " +
                         std::to_string(type)),
                  1u);
    }
    EXPECT_EQ(OsselBackend::initWithName("ossel", nullptr, "Fernlight"), nullptr);
    EXPECT_EQ(logged("<6>OsselBackend(initWithName): Loading Ossel adaptor class for client type 0"), 2u);
    EXPECT_EQ(logged("<3>loadCodeBundle"), 0u);
}

TEST_F(OsselBackendTest, AMissingAdaptorCostsALineAnEventUntilItIsThere) {
    const auto backend = backendForClientType(7);
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(logged("<3>loadCodeBundle: Cannot load " + _root.string() +
                     "/usr/lib/quorvane/OsselAdaptor.so: No such file or directory"),
              1u);
    expectRefusals(*backend, {{"a", 1}}, "Ossel adaptor (null)" + kNoSelector);

    install(QUORVANE_BUNDLE_SAMPLE);
    const auto another = backendForClientType(7);
    expectRefusals(*another, {{"a", "\xff"}}, "The message cannot be written as a property list");
    send(*another, {{"a", 3}});
    EXPECT_THAT(messages(), EndsWith("{\"a\": 3}\n"));
}

TEST_F(OsselBackendTest, AnAdaptorWithoutTheOperationRefusesEachEvent) {
    install(QUORVANE_BUNDLE_MUTE);
    expectRefusals(*backendForClientType(7), {{"a", 1}}, "Ossel adaptor <OsselAdaptor>" + kNoSelector);
}

using JoularyBackendTest = BackendFixture;

TEST_F(JoularyBackendTest, LaysItsOwnValuesOverTheMessagesAndWritesThemButNoneOfMethodZeroOrEmpty) {
    const auto backend = JoularyBackend::initWithName("joulary", shared({}), "Fernlight");
    const Dictionary message{{"level", 80u}, {"event", "mine"}, {"respCode", -1}};
    EXPECT_EQ(backend->sendMessage(&message, {130, 0}, 65535, 404, EventID{65535}), std::nullopt);
    const Dictionary empty;
    backend->sendMessage(&message, {130, 0}, 0, 404, EventID{1});
    for (const Dictionary* none : {&empty, static_cast<const Dictionary*>(nullptr)})
        backend->sendMessage(none, {130, 0}, 5, 404, EventID{2});
    const auto line = platform::parseJson(read("var/lib/quorvane/power-log.jsonl"));
    ASSERT_TRUE(line && line->dictionary());
    EXPECT_EQ(line->dictionary()->integer("agent"), 28);
    EXPECT_EQ(*line->dictionary()->string("event"), "Strevad-QVN");
    EXPECT_EQ(*line->dictionary()->dictionary("values"),
              (Dictionary{{"event", 65535}, {"level", 80}, {"method", 65535}, {"respCode", 404}}));
    EXPECT_EQ(logged("<"), 0u);
}

}  // namespace
}  // namespace quorvane

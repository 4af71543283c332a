#include "platform/device/Consent.h"
#include "platform/device/DeviceQuery.h"
#include "platform/device/UserDefaults.h"
#include "platform/formats/TomlFile.h"
#include "tests/platform/Repeated.h"
#include "tests/support/RootFixture.h"

#include <cmath>
#include <limits>
#include <map>

#include <fmt/format.h>

namespace quorvane::platform {
namespace {

std::string errorOf(const Result<Dictionary>& result) {
    return result ? "no error" : result.error().message;
}

TEST(TomlFileTest, EveryKindOfTomlBecomesAValue) {
    const auto result = parseToml(R"(
text = "a\nä"
integer = -9223372036854775808
real = 0.25
not_finite = -inf
yes = true
instant = 2026-01-15T08:00:00.5+01:30
local = 1969-12-31T23:59:59
day = 2026-01-15
time = 07:32:00.25
list = [1, "two", [3.0]]
dotted.key = "x"
[table."with blank"]
inner = {a = 1}
[[tables]]
n = 1
[[tables]]
n = 2
)",
                                  "bag.toml");
    ASSERT_TRUE(result) << errorOf(result);
    const Dictionary expected{
        {"text", "a\nä"},
        {"integer", std::numeric_limits<std::int64_t>::min()},
        {"real", 0.25},
        {"not_finite", -INFINITY},
        {"yes", true},
        {"instant", Date{1'768'458'600'500'000}},
        {"local", Date{-1'000'000}},
        {"day", Date{1'768'435'200'000'000}},
        {"time", "07:32:00.25"},
        {"list", Array{1, "two", Array{3.0}}},
        {"dotted", Dictionary{{"key", "x"}}},
        {"table", Dictionary{{"with blank", Dictionary{{"inner", Dictionary{{"a", 1}}}}}}},
        {"tables", Array{Dictionary{{"n", 1}}, Dictionary{{"n", 2}}}},
    };
    EXPECT_EQ(*result, expected) << result->description();
}

TEST(TomlFileTest, AFaultIsNamedByFileLineAndKey) {
    const std::pair<const char*, const char*> faults[] = {
        {"a = 1\n\n  server.port = 80x\n", "x: line 3: server.port: "},
        {"a = 1\na = 2\n", "x: line 2: a: "},
        {"[a", "x: line 1: "},
        {"a = \"\xff\"", "x: line 1: a: "}};
    for (const auto& [text, error] : faults)
        EXPECT_THAT(errorOf(parseToml(text, "x")), testing::StartsWith(error)) << text;
    EXPECT_EQ(errorOf(readTomlFile("/nonexistent.toml")), "/nonexistent.toml: No such file or directory");
}

TEST(TomlFileTest, DeepTextsAreRefusedHoweverTheyNest) {
    const std::string parts = repeated(".a", 40'000);
    for (const std::string& text :
         {"a" + parts + " = 1", "[a" + parts + "]", "[[a" + repeated(" . \"a\"", 40'000) + "]]",
          "a = " + repeated("[", 40'000), "a = " + repeated("{a = ", 40'000), "a = {a" + parts + " = 1}",
          "a = [1, {b = [{a" + parts + " = 1}]}]",
          "'[' . \"\\\"\" . a = \"\"\"\n\"\"\"\"\"\n[a" + parts + "]"})
        EXPECT_THAT(errorOf(parseToml(text, "x")), testing::HasSubstr("is nested deeper"))
            << text.substr(0, 80);

    // The root is the first level, and a header counts for all that stands under it.
    const auto isRead = [](const std::string& text) { return parseToml(text, "x").has_value(); };
    EXPECT_TRUE(isRead("a = " + repeated("[", 127) + repeated("]", 127) + "\nb = 1.5"));
    EXPECT_FALSE(isRead("a = " + repeated("[", 128) + repeated("]", 128)));
    EXPECT_TRUE(isRead("[a" + repeated(".a", 60) + "]\nb" + repeated(".b", 66) + " = 1"));
    EXPECT_FALSE(isRead("[a" + repeated(".a", 60) + "]\nb" + repeated(".b", 67) + " = 1"));

    // Nothing of this nests.
    std::string flat = "list = [" + repeated("1.5, '[.[.[.', # [[[\n", 200) + "]\n";
    for (int i = 0; i < 200; ++i) flat += fmt::format("[a{}.b]\nc.d = \"\"\"\\\"\"\"\n[[[...\n\"\"\"\n", i);
    EXPECT_EQ(errorOf(parseToml(flat, "x")), "no error");
}

class ConfigurationTest : public RootFixture {
  protected:
    const std::string kSuite = "etc/quorvane/defaults/com.velmora.quorvane.toml";
    static std::optional<std::string> setting(std::string_view key) {
        return userDefaultString("com.velmora.quorvane", key);
    }
};

TEST_F(ConfigurationTest, UserDefaultsAreReadAfreshAndByTypeAndMalformedFilesAsEmpty) {
    EXPECT_EQ(setting("httpsPostURL"), std::nullopt) << "no file";
    EXPECT_EQ(logged(""), 0u) << "a file that is not there is no fault";
    write(kSuite, "httpsPostURL = \"https://a.invalid\"\nenvironmentType = 3\n");
    EXPECT_EQ(setting("httpsPostURL"), "https://a.invalid");
    EXPECT_EQ(userDefault("com.velmora.quorvane", "environmentType"), Value(3));
    EXPECT_EQ(userDefault("com.velmora.quorvane", "gone"), std::nullopt);
    EXPECT_EQ(userDefault("com.velmora.timed", "environmentType"), std::nullopt) << "another suite";
    EXPECT_EQ(setting("environmentType"), std::nullopt);
    EXPECT_EQ(logged(kSuite + ": environmentType: a text is expected"), 1u);
    write(kSuite, "httpsPostURL = \"https://b.invalid\"\n");
    EXPECT_EQ(setting("httpsPostURL"), "https://b.invalid");

    write(kSuite, "number = 7\nflag = false\ntext = \"release\"\n");
    constexpr const char* suite = "com.velmora.quorvane";
    EXPECT_EQ(userDefaultInteger(suite, "number"), 7);
    EXPECT_EQ(userDefaultInteger(suite, "gone"), std::nullopt);
    EXPECT_EQ(userDefaultBoolean(suite, "flag"), false);
    EXPECT_EQ(logged(": number: ") + logged(": flag: ") + logged(": gone: "), 0u);
    EXPECT_EQ(userDefaultInteger(suite, "text"), 0);
    EXPECT_EQ(logged(kSuite + ": text: a number is expected"), 1u);
    EXPECT_EQ(userDefaultBoolean(suite, "text"), false);
    EXPECT_EQ(logged(kSuite + ": text: true or false is expected"), 1u);

    write(kSuite, "httpsPostURL = \"https://a.invalid\"\nenvironmentType = \n");
    EXPECT_EQ(setting("httpsPostURL"), std::nullopt);
    EXPECT_EQ(logged(kSuite + ": line 2: environmentType: "), 1u);
    std::filesystem::create_directories(_root / "etc/quorvane/defaults/folder.toml");
    EXPECT_EQ(userDefault("folder", "key"), std::nullopt);
    EXPECT_EQ(logged("folder.toml: Is a directory"), 1u);
}

TEST_F(ConfigurationTest, OnlyAPlainTrueIsConsent) {
    EXPECT_FALSE(diagnosticsSubmissionAllowed()) << "no file";
    for (const auto& [text, allowed] :
         std::map<std::string, bool>{{"diagnostics_submission = true", true},
                                     {"diagnostics_submission = false", false},
                                     {"diagnostics_submission = 1", false},
                                     {"diagnostics_submission = tru", false},
                                     {"diagnostics_submission = \"true\"", false},
                                     {"# diagnostics_submission = true", false}}) {
        write("etc/quorvane/consent.toml", text);
        EXPECT_EQ(diagnosticsSubmissionAllowed(), allowed) << text;
    }
    EXPECT_EQ(logged("diagnostics_submission: true or false is expected"), 2u);
}

TEST_F(ConfigurationTest, TheDeviceAnswersFromItsFileElseFromTheSystem) {
    EXPECT_THAT(deviceInformation("UniqueDeviceID").value_or(""), testing::MatchesRegex("[0-9a-f]{1,40}"));
    EXPECT_TRUE(deviceInformation("DeviceName")) << "the name of the host";
    EXPECT_EQ(deviceInformation("NoSuchKey"), std::nullopt);
    write("etc/quorvane/device.toml", R"(
UniqueDeviceID = "00008110-001a2b3c4d5e6f70"
DeviceName = ["Reception"]
ReleaseType = "Internal"
NoSuchKey = "its own"
)");
    EXPECT_EQ(deviceInformation("UniqueDeviceID"), "00008110-001a2b3c4d5e6f70");
    EXPECT_EQ(deviceInformation("ReleaseType"), "Internal");
    EXPECT_EQ(deviceInformation("NoSuchKey"), "its own");
    EXPECT_TRUE(deviceInformation("DeviceName")) << "what is no text does not hide the system's answer";
    EXPECT_EQ(logged("device.toml: DeviceName: a text is expected"), 1u);
}

}  // namespace
}  // namespace quorvane::platform

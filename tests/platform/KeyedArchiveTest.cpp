#include "platform/formats/KeyedArchive.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/RootFixture.h"

#include <limits>
#include <string_view>

namespace quorvane::platform {
namespace {

class KeyedArchiveTest : public RootFixture {
  protected:
    /// What Python's property-list reader finds in the archive of the array, following the references from
    /// its top, as JSON with sorted keys: data as {"data": "hex"}, dates as {"date": seconds since 1970}.
    std::string archivedJson(const Array& array) const {
        const auto archive = keyedArchive(array);
        if (!archive) return "nothing";
        write("archive", {archive->begin(), archive->end()});
        const auto result =
            test::runProgram({"/usr/bin/python3", QUORVANE_ARCHIVE_READER, _root / "archive"});
        return result.output.substr(0, result.output.find('\n')) + result.errors;
    }
};

TEST_F(KeyedArchiveTest, AnotherReaderFindsEveryKindOfValueAndContainersInTheirShape) {
    EXPECT_EQ(archivedJson({}), "[]");
    const std::string fifteen(15, 'x');
    EXPECT_EQ(archivedJson({"a \xc3\xbc", "", "\xf0\x9f\x93\x84", "$null", "\x1b[1m\t", "", fifteen}),
              R"(["a \u00fc", "", "\ud83d\udcc4", "$null", "\u001b[1m\t", "", "xxxxxxxxxxxxxxx"])");
    using Signed = std::numeric_limits<std::int64_t>;
    using Unsigned = std::numeric_limits<std::uint64_t>;
    EXPECT_EQ(archivedJson({true, false, 1, 0, -5, 255, 256, 65'536, 0.5, Signed::min(), Unsigned::max()}),
              "[true, false, 1, 0, -5, 255, 256, 65536, 0.5, -9223372036854775808, 18446744073709551615]");
    EXPECT_EQ(
        archivedJson({Data{}, Data{0, 1, 255}, Date{1'763'280'000'250'000}, Date{-4'000'000'000'000'000}}),
        R"([{"data": ""}, {"data": "0001ff"}, {"date": 1763280000.25}, {"date": -4000000000.0}])");
    const Dictionary entry{{"level", 3}, {"text", "level"}, {"tags", Array{"text", Array{}, Dictionary{}}}};
    EXPECT_EQ(archivedJson({entry, Array{entry, Value(Array{Value(Array{})})}}),
              R"([{"level": 3, "tags": ["text", [], {}], "text": "level"}, )"
              R"([{"level": 3, "tags": ["text", [], {}], "text": "level"}, [[]]]])");
}

TEST_F(KeyedArchiveTest, ReferencesOfEveryWidthLead) {
    for (const int count : {200, 300, 70'000}) {
        Array numbers;
        std::string expected;
        for (int i = 0; i < count; ++i) {
            numbers.emplace_back("n" + std::to_string(i));
            expected += (i == 0 ? "[\"n" : ", \"n") + std::to_string(i) + "\"";
        }
        EXPECT_EQ(archivedJson(numbers), expected + "]");
    }
}

TEST_F(KeyedArchiveTest, ATextThatItCannotHoldYieldsNothing) {
    EXPECT_EQ(keyedArchive({"\xff"}), std::nullopt);
    EXPECT_EQ(keyedArchive({Dictionary{{"key", Array{1, "a\xed\xa0\x80"}}}}), std::nullopt);
    EXPECT_EQ(keyedArchive({Dictionary{{"\xc3", 1}}}), std::nullopt);
}

}  // namespace
}  // namespace quorvane::platform

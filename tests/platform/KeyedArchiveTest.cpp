#include "platform/KeyedArchive.h"

#include "tests/support/KeyedArchiveReader.h"

#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace quorvane::platform {
namespace {

/// What another reader finds in the archive of the array.
std::string archivedJson(const Array& array) {
    const auto archive = keyedArchive(array);
    if (!archive) return "nothing";
    EXPECT_TRUE(archive->size() > 8 &&
                std::string_view(reinterpret_cast<const char*>(archive->data()), 8) == "bplist00");
    return test::archivedJson({reinterpret_cast<const char*>(archive->data()), archive->size()});
}

TEST(KeyedArchive, AnotherReaderFindsEveryKindOfValue) {
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
}

TEST(KeyedArchive, ContainersKeepTheirShape) {
    const Dictionary entry{{"level", 3}, {"text", "level"}, {"tags", Array{"text", Array{}, Dictionary{}}}};
    EXPECT_EQ(archivedJson({entry, Array{entry, Value(Array{Value(Array{})})}}),
              R"([{"level": 3, "tags": ["text", [], {}], "text": "level"}, )"
              R"([{"level": 3, "tags": ["text", [], {}], "text": "level"}, [[]]]])");
}

TEST(KeyedArchive, ReferencesOfEveryWidthLead) {
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

TEST(KeyedArchive, ATextThatItCannotHoldYieldsNothing) {
    EXPECT_EQ(keyedArchive({"\xff"}), std::nullopt);
    EXPECT_EQ(keyedArchive({Dictionary{{"key", Array{1, "a\xed\xa0\x80"}}}}), std::nullopt);
    EXPECT_EQ(keyedArchive({Dictionary{{"\xc3", 1}}}), std::nullopt);
}

}  // namespace
}  // namespace quorvane::platform

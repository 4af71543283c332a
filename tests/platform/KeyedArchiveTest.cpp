#include "platform/formats/KeyedArchive.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/RootFixture.h"

#include <limits>
#include <string_view>

namespace quorvane::platform {
namespace {

constexpr const char* kReader = R"(
import json, plistlib, sys

archive = plistlib.load(open(sys.argv[1], "rb"), fmt=plistlib.FMT_BINARY)
objects = archive["$objects"]
assert set(archive) == {"$archiver", "$version", "$top", "$objects"} and objects[0] == "$null"
assert archive["$version"] == 100000 and set(archive["$top"]) == {"root"}
texts = [o for o in objects[1:] if isinstance(o, str)]
assert len(texts) == len(set(texts))

def at(reference):
    assert type(reference) is plistlib.UID and reference.data > 0
    return objects[reference.data]

def value(reference):
    held = at(reference)
    if isinstance(held, bytes):
        return {"data": held.hex()}
    if not isinstance(held, dict):
        return held
    kind = at(held["$class"])
    assert kind["$classes"] == [kind["$classname"], "Object"]
    if kind["$classname"] == "Date":
        return {"date": held["time"] + 978307200}
    values = [value(r) for r in held["objects"]]
    if kind["$classname"] == "Array":
        return values
    assert kind["$classname"] == "Dictionary"
    keys = [value(r) for r in held["keys"]]
    assert len(keys) == len(values)
    return dict(zip(keys, values))

print(json.dumps(value(archive["$top"]["root"]), sort_keys=True))
)";

class KeyedArchiveTest : public RootFixture {
  protected:
    /// What Python's property-list reader finds in the archive of the array, following the references from
    /// its top, as JSON with sorted keys: data as {"data": "hex"}, dates as {"date": seconds since 1970}.
    std::string archivedJson(const Array& array) const {
        const auto archive = keyedArchive(array);
        if (!archive) return "nothing";
        write("archive", {archive->begin(), archive->end()});
        const auto result = test::runProgram({"/usr/bin/python3", "-c", kReader, _root / "archive"});
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

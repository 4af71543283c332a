#include "platform/formats/Json.h"

#include "tests/platform/Repeated.h"

#include <cmath>
#include <limits>
#include <random>

namespace quorvane::platform {
namespace {

std::string compact(const Value& value) {
    const auto bytes = compactJson(value);
    return bytes ? std::string(bytes->begin(), bytes->end()) : "(nothing)";
}

TEST(CompactJson, WritesEveryKindOfJsonInSortedOrderAndIsReadBack) {
    const Value value(Dictionary{{"n", -1},
                                 {"low", std::numeric_limits<std::int64_t>::min()},
                                 {"u", std::numeric_limits<std::uint64_t>::max()},
                                 {"r", 0.1},
                                 {"s", 1.7976931348623157e308},
                                 {"t", true},
                                 {"a", Array{"x", Array{}, Dictionary{}, false}},
                                 {"q\"\n\x01", "\xc3\xbc/\\\xf0\x9f\x98\x80"}});
    EXPECT_EQ(compact(value),
              R"({"a":["x",[],{},false],"low":-9223372036854775808,"n":-1,"q\"\n\u0001":"ü/\\😀","r":0.1,)"
              R"("s":1.7976931348623157e308,"t":true,"u":18446744073709551615})");
    EXPECT_EQ(parseJson(compact(value)), value);
    EXPECT_EQ(parseJson(*prettyJson(value)), value);
    EXPECT_EQ(prettyJson(Dictionary{{"a", Array{1, 2}}, {"b", "c"}}),
              "{\n  \"a\": [\n    1,\n    2\n  ],\n  \"b\": \"c\"\n}");
    EXPECT_EQ(parseJson(R"( {"b":1,"a":"\u00fc","b":2} )"), Value(Dictionary{{"a", "\xc3\xbc"}, {"b", 2}}));
}

TEST(CompactJson, FailsOnWhatJsonCannotHoldWhereverItStands) {
    const double infinity = std::numeric_limits<double>::infinity();
    for (const Value& value :
         {Value(std::nan("")), Value(infinity), Value(-infinity), Value("\xff"), Value("cut \xe2\x82"),
          Value("\xed\xa0\x80"), Value("long enough to be checked in words \xc0\x80"), Value(Date{0}),
          Value(Data{1})}) {
        for (const Value& around :
             {value, Value(Array{Value(1), value}), Value(Dictionary{{"a", Dictionary{{"b", value}}}})}) {
            EXPECT_FALSE(compactJson(around)) << value.description();
            EXPECT_FALSE(prettyJson(around)) << value.description();
        }
    }
    EXPECT_FALSE(compactJson(Dictionary{{"\xff", 1}}));
}

TEST(CompactJson, EveryAsciiCharacterIsReadBackWhereverItStands) {
    for (int c = 0; c < 128; ++c)
        for (std::size_t at = 0; at < 12; ++at) {
            std::string text(12, 'x');
            text[at] = static_cast<char>(c);
            EXPECT_EQ(parseJson(compact(Array{text})), Value(Array{text})) << c << " at " << at;
        }
}

TEST(CompactJson, LargeAndDeepValuesAreWrittenWhole) {
    const std::string text(1 << 20, '\x01');
    EXPECT_EQ(compact(text), '"' + repeated("\\u0001", 1 << 20) + '"');

    Value deep(1);
    for (int i = 0; i < 100; ++i) deep = Value(Array{deep});
    EXPECT_EQ(compact(deep), repeated("[", 100) + "1" + repeated("]", 100));
}

TEST(ParseJson, RefusesWhatIsNotOneWholeText) {
    for (const std::string& text :
         {std::string(), std::string(" "), std::string("nul"), std::string("null"), std::string("[1,]"),
          std::string("{\"a\":null}"), std::string("{\"a\" 1}"), std::string("{} {}"), std::string("1e999"),
          std::string("NaN"), std::string("\"\xff\""), std::string("\"\\ud800\""), std::string("\"a\nb\""),
          std::string("{}\0x", 4), std::string("[\0]", 3), std::string("'a'"), std::string("[1")})
        EXPECT_FALSE(parseJson(text)) << text;
}

TEST(ParseJson, BoundsDepthAndNumberOfValues) {
    EXPECT_TRUE(parseJson(repeated("[", 128) + repeated("]", 128)));
    EXPECT_FALSE(parseJson(repeated("[", 129) + repeated("]", 129)));
    EXPECT_FALSE(parseJson(repeated("[", 1'000'000)));
    EXPECT_FALSE(parseJson(repeated("{\"a\":", 1'000'000)));
    EXPECT_TRUE(parseJson("[" + repeated("0,", 999'998) + "0]"));
    EXPECT_FALSE(parseJson("[" + repeated("0,", 1'000'000) + "0]"));
}

TEST(ParseJson, DamagedTextsNeverDoMoreThanFail) {
    const std::string whole =
        R"({"a":[1,-2.5e3,true,"\u00fc\n"],"b":{"c":18446744073709551615,"d":"text"},"e":[]})";
    std::mt19937 random(1);
    for (int round = 0; round < 20'000; ++round) {
        std::string text = whole.substr(0, random() % (whole.size() + 1));
        for (int i = random() % 4; i > 0 && !text.empty(); --i)
            text[random() % text.size()] = static_cast<char>(random());
        const auto value = parseJson(text);
        EXPECT_TRUE(!value || compactJson(*value)) << text;
    }
}

}  // namespace
}  // namespace quorvane::platform

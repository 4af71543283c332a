#include "platform/value/Value.h"

#include <cmath>
#include <limits>
#include <random>

namespace quorvane::platform {
namespace {

TEST(Dictionary, KeepsSortedOrderWhateverTheOrderOfInsertion) {
    Dictionary dictionary{{"b", 1}, {"a", 2}};
    dictionary.set("c", 3);
    dictionary.set("aa", 4);
    dictionary.set("b", 5);
    dictionary.remove("c");
    dictionary.remove("absent");
    EXPECT_EQ(dictionary.description(), "{a = 2; aa = 4; b = 5;}");
    EXPECT_EQ(dictionary.integer("b"), 5);
    EXPECT_EQ(dictionary.string("b"), nullptr) << "of another type";
    EXPECT_FALSE(dictionary.contains("c"));
}

TEST(Dictionary, MergingIsSettingEveryEntry) {
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        Dictionary merged;
        Dictionary other;
        for (int i = random() % 8; i > 0; --i) merged.set(std::to_string(random() % 12), 1);
        for (int i = random() % 8; i > 0; --i) other.set(std::to_string(random() % 12), 2);
        Dictionary expected = merged;
        for (const auto& [key, value] : other) expected.set(key, value);
        merged.merge(other);
        EXPECT_EQ(merged, expected);
    }
}

TEST(Value, NumbersConvertWithoutUndefinedBehaviour) {
    EXPECT_EQ(Value(-1).unsignedInteger(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Value(70000).unsignedInteger() & 0xffff, 4464u);
    EXPECT_EQ(Value(std::nan("")).integer(), 0);
    EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).integer(),
              std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(Value(-1e300).integer(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Value(1e300).unsignedInteger(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Value(-3.9).integer(), -3);
    EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).integer(), -1);
}

TEST(Value, DescriptionCoversEveryKind) {
    const Dictionary inner{{"d", Data{0x0a, 0xff}}, {"t", Date{1'763'280'000'000'000}}};
    const Value value(Array{Value("x"), Value(true), Value(-2), Value(1.5), Value(inner)});
    EXPECT_EQ(value.description(), "(x, 1, -2, 1.5, {d = <0aff>; t = 2025-11-16 08:00:00 +0000;})");
    EXPECT_EQ(Value(Dictionary{}).description(), "{}");
}

}  // namespace
}  // namespace quorvane::platform

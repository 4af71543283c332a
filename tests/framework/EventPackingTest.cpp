#include "framework/EventPacking.h"

#include <random>

#include <gtest/gtest.h>

namespace quorvane {
namespace {

using Step = PackedEventReader::Step;
using Bytes = std::vector<std::uint8_t>;

Bytes packed(const std::optional<Dictionary>& payload, std::uint64_t age = 0) {
    const Dictionary* held = payload ? &*payload : nullptr;
    Bytes bytes(packedSize(held).value());
    packEvent(bytes.data(), bytes.size(), 12, 200, 3, age, held);
    return bytes;
}

Dictionary nested(int levels) {
    Dictionary dictionary{{"end", true}};
    for (int level = 1; level < levels; ++level) dictionary = Dictionary{{"in", std::move(dictionary)}};
    return dictionary;
}

const Dictionary kAllKinds{{"array", Array{1, "two", Array{}}},
                           {"boolean", true},
                           {"data", Data{0, 255}},
                           {"date", Date{-5}},
                           {"dictionary", Dictionary{{"", ""}}},
                           {"real", 0.25},
                           {"signed", -7},
                           {"text", "caf\u00e9"},
                           {"unsigned", UINT64_MAX}};

TEST(EventPacking, EventsComeBackAsTheyWere) {
    Bytes bytes = packed(kAllKinds, 90);
    const Bytes bare = packed(std::nullopt, 250);
    bytes.insert(bytes.end(), bare.begin(), bare.end());
    replaceTimesByAges(bytes, 100);

    PackedEventReader reader(bytes);
    ASSERT_EQ(reader.next(), Step::Event);
    EXPECT_EQ(reader.event().payload, kAllKinds);
    EXPECT_EQ(reader.event().category, 12);
    EXPECT_EQ(reader.event().type, 200);
    EXPECT_EQ(reader.event().flag, 3u);
    EXPECT_EQ(reader.event().age, std::chrono::microseconds(10));
    ASSERT_EQ(reader.next(), Step::Event);
    EXPECT_EQ(reader.event().payload, std::nullopt);
    EXPECT_EQ(reader.event().age.count(), 0) << "a clock that was set back makes no event older";
    EXPECT_EQ(reader.next(), Step::End);
}

TEST(EventPacking, WhatDBusCannotCarryIsNotPacked) {
    EXPECT_TRUE(packedSize(nullptr));
    for (const Dictionary& wrong :
         {Dictionary{{std::string("a\0b", 3), 1}}, Dictionary{{"key", "\xff"}},
          Dictionary{{"in", Array{"\xc0\x80"}}}, Dictionary{{"\ufdd0", 1}}, nested(22)})
        EXPECT_FALSE(packedSize(&wrong)) << wrong.description();
    const Bytes deepest = packed(nested(21));
    PackedEventReader reader(deepest);
    EXPECT_EQ(reader.next(), Step::Event);
}

TEST(EventPacking, AWrongEventDoesNotStopThoseBehindIt) {
    const Bytes good = packed(Dictionary{{"b", true}, {"a", "x"}});
    const auto follows = [&](Bytes wrong, std::string_view why) {
        wrong.insert(wrong.end(), good.begin(), good.end());
        PackedEventReader reader(wrong);
        EXPECT_EQ(reader.next(), Step::Wrong) << why;
        EXPECT_EQ(reader.failure(), why);
        EXPECT_EQ(reader.next(), Step::Event) << why;
        EXPECT_EQ(reader.next(), Step::End) << why;
    };
    const auto changed = [&](std::size_t at, std::uint8_t byte) {
        Bytes bytes = good;
        bytes.at(at) = byte;
        return bytes;
    };
    Bytes noncharacter = packed(Dictionary{{"a", "\ufffd"}});
    noncharacter.back() = 0xbe;
    follows({0, 0, 0, 0}, "its values go past its end");
    follows(changed(20, 2), "a boolean is neither 0 nor 1");
    follows(changed(20, 0), "it is longer than its values");
    follows(changed(19, 1), "it is older than a year");
    follows(changed(21, 1), "it is longer than its values");
    follows(changed(24, 0x7f), "its values go past its end");
    follows(changed(29, 0xff), "a text is not UTF-8 or holds a NUL");
    follows(noncharacter, "a text is not UTF-8 or holds a NUL");
    follows(changed(30, 9), "a value is of an unknown type");

    PackedEventReader cut(std::span<const std::uint8_t>(good).first(good.size() - 1));
    EXPECT_EQ(cut.next(), Step::Wrong);
    EXPECT_EQ(cut.next(), Step::End) << "nobody knows where the next one would begin";
}

/// For the sanitizers.
TEST(EventPacking, AnyBytesAreReadToTheirEnd) {
    const Bytes good = packed(kAllKinds);
    std::minstd_rand random(1);
    for (int round = 0; round < 20'000; ++round) {
        Bytes bytes = good;
        for (int change = 0; change <= round % 4; ++change)
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        bytes.resize(bytes.size() - random() % 2 * (random() % bytes.size()));
        PackedEventReader reader(bytes);
        for (Step step = reader.next(); step != Step::End; step = reader.next())
            EXPECT_TRUE(step == Step::Wrong || !reader.event().payload ||
                        packedSize(&*reader.event().payload));
    }
}

}  // namespace
}  // namespace quorvane

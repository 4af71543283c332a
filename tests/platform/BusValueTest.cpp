#include "platform/bus/BusValue.h"

#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusText.h"
#include "tests/platform/BusFixture.h"
#include "tests/support/BusClient.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <limits>

namespace quorvane::platform {
namespace {

std::array<UniqueDescriptor, 2> socketPair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    return {UniqueDescriptor(ends[0]), UniqueDescriptor(ends[1])};
}

/// One message on a real connection: written, sealed, and read from its start.
class BusValueTest : public ::testing::Test {
  protected:
    BusValueTest() { renew(); }

    void renew() {
        _held = _client.newCall("a.b", "C");
        message = _held.get();
    }

    void seal() {
        ASSERT_GE(::sd_bus_message_seal(message, ++_cookie, 0), 0);
        ASSERT_GE(::sd_bus_message_rewind(message, 1), 0);
    }

    Dictionary roundTrip(const Dictionary& dictionary) {
        Dictionary read;
        renew();
        EXPECT_GE(appendDictionary(message, dictionary), 0);
        seal();
        EXPECT_GE(readDictionary(message, read), 0);
        EXPECT_EQ(::sd_bus_message_at_end(message, 1), 1);
        return read;
    }

    /// The result of reading a dictionary of one entry "k" whose variant was appended with the types and
    /// arguments; what was read stands in the last one.
    template <typename... Arguments>
    int readVariant(const char* types, Arguments... arguments) {
        renew();
        EXPECT_GE(::sd_bus_message_open_container(message, 'a', "{sv}"), 0);
        EXPECT_GE(::sd_bus_message_open_container(message, 'e', "sv"), 0);
        EXPECT_GE(::sd_bus_message_append(message, "s", "k"), 0);
        EXPECT_GE(::sd_bus_message_open_container(message, 'v', types), 0);
        EXPECT_GE(::sd_bus_message_append(message, types, arguments...), 0);
        for (int i = 0; i < 3; ++i) EXPECT_GE(::sd_bus_message_close_container(message), 0);
        seal();
        return readDictionary(message, _read);
    }

    /// The result of reading so many dictionaries within each other, all but the outermost typed.
    int readTyped(int dictionaries) {
        std::vector<std::string> types{"i"};
        for (int i = 1; i < dictionaries; ++i) types.push_back("a{s" + types.back() + "}");
        renew();
        EXPECT_GE(::sd_bus_message_open_container(message, 'a', "{sv}"), 0);
        EXPECT_GE(::sd_bus_message_open_container(message, 'e', "sv"), 0);
        EXPECT_GE(::sd_bus_message_append(message, "s", "k"), 0);
        EXPECT_GE(::sd_bus_message_open_container(message, 'v', types.back().c_str()), 0);
        for (int i = dictionaries - 2; i >= 0; --i) {
            const std::string entry = "s" + types[i];
            EXPECT_GE(::sd_bus_message_open_container(message, 'a', ("{" + entry + "}").c_str()), 0);
            EXPECT_GE(::sd_bus_message_open_container(message, 'e', entry.c_str()), 0);
            EXPECT_GE(::sd_bus_message_append(message, "s", "k"), 0);
        }
        EXPECT_GE(::sd_bus_message_append(message, "i", 1), 0);
        for (int i = 0; i <= 2 * dictionaries; ++i) EXPECT_GE(::sd_bus_message_close_container(message), 0);
        seal();
        return readDictionary(message, _read);
    }

    template <typename... Arguments>
    Value variant(const char* types, Arguments... arguments) {
        EXPECT_GE(readVariant(types, arguments...), 0) << types;
        return _read.contains("k") ? *_read.find("k") : Value("nothing");
    }

    sd_bus_message* message = nullptr;

  private:
    std::array<UniqueDescriptor, 2> _ends = socketPair();
    const test::BusClient _client{std::move(_ends[0])};
    test::Message _held;
    std::uint64_t _cookie = 0;
    Dictionary _read;
};

TEST_F(BusValueTest, EveryKindKeepsItsValueAndItsKind) {
    const Array array{1, "x", Array{}, Dictionary{{"a", 1.5}}, Data{1}};
    const Dictionary payload{
        {"text", "gr\xc3\xbc\xc3\x9f"},
        {"", ""},
        {"flag", true},
        {"signed", std::numeric_limits<std::int64_t>::min()},
        {"unsigned", std::numeric_limits<std::uint64_t>::max()},
        {"real", 0.1},
        {"date", Date{1'763'280'000'123'456}},
        {"early", Date{-1}},
        {"data", Data{0, 1, 255}},
        {"nothing", Data{}},
        {"array", array},
        {"empty", Dictionary{}},
    };
    EXPECT_EQ(roundTrip(payload), payload);
    EXPECT_TRUE(std::isnan(roundTrip({{"n", std::nan("")}}).find("n")->real()));
    EXPECT_EQ(roundTrip({}), Dictionary{});

    renew();
    ASSERT_GE(appendArray(message, array), 0);
    ASSERT_GE(::sd_bus_message_append(message, "ad", 2, 0.5, 1.5), 0);
    seal();
    Array read;
    ASSERT_GE(readArray(message, read), 0);
    EXPECT_EQ(read, array);
    ASSERT_GE(readArray(message, read), 0);
    EXPECT_EQ(read, (Array{0.5, 1.5}));
}

TEST_F(BusValueTest, EveryTypeOfAClientsPayloadIsReadAndNoOther) {
    EXPECT_EQ(variant("y", 200), Value(200u));
    EXPECT_EQ(variant("n", -3), Value(-3));
    EXPECT_EQ(variant("o", "/x"), Value("/x"));
    EXPECT_EQ(variant("aq", 2, 1, 65535), Value(Array{1u, 65535u}));
    EXPECT_EQ(variant("ab", 1, 1), Value(Array{true}));
    EXPECT_EQ(variant("a{su}", 2, "b", 2, "a", 1), Value(Dictionary{{"a", 1u}, {"b", 2u}}));
    EXPECT_EQ(variant("a{sa{sas}}", 1, "x", 1, "y", 2, "1", "2"),
              Value(Dictionary{{"x", Dictionary{{"y", Array{"1", "2"}}}}}));
    EXPECT_EQ(variant("aay", 2, 1, 7, 0), Value(Array{Data{7}, Data{}}));
    EXPECT_EQ(variant("v", "v", "a{sv}", 1, "z", "i", 5), Value(Dictionary{{"z", 5}}));

    EXPECT_EQ(readVariant("h", STDIN_FILENO), -ENXIO);
    EXPECT_EQ(readVariant("(ii)", 1, 2), -ENXIO);
    EXPECT_EQ(readVariant("a{is}", 1, 1, "x"), -ENXIO);
    EXPECT_EQ(readVariant("(xu)", std::numeric_limits<std::int64_t>::max(), 0u), -EBADMSG);
    renew();
    ASSERT_GE(::sd_bus_message_append(message, "s", "no dictionary"), 0);
    seal();
    Dictionary dictionary;
    EXPECT_EQ(readDictionary(message, dictionary), -ENXIO);
    Array array;
    EXPECT_EQ(readArray(message, array), -ENXIO);
}

TEST_F(BusValueTest, ManyKeysInTheWorstOrderAreReadInNoTimeAndOfEqualOnesTheLastCounts) {
    constexpr int count = 100'000;
    renew();
    ASSERT_GE(::sd_bus_message_open_container(message, 'a', "{sv}"), 0);
    for (int i = count; i >= 0; --i) {
        const std::string key = std::to_string(1'000'000 + std::max(i, 1));
        ASSERT_GE(::sd_bus_message_append(message, "{sv}", key.c_str(), "i", i), 0);
    }
    ASSERT_GE(::sd_bus_message_close_container(message), 0);
    seal();
    Dictionary read;
    ASSERT_GE(readDictionary(message, read), 0);
    EXPECT_EQ(read.size(), count);
    EXPECT_EQ(read.begin()->value, Value(0));
}

TEST_F(BusValueTest, OptionalValuesHoldNoneOrOneAndNeverTwo) {
    const Dictionary dictionary{{"a", 1}};
    const std::vector<std::string> strings{"x", "y"};
    const std::string text = "t";
    renew();
    ASSERT_GE(appendOptionalDictionary(message, nullptr), 0);
    ASSERT_GE(appendOptionalDictionary(message, &dictionary), 0);
    ASSERT_GE(appendOptionalStrings(message, nullptr), 0);
    ASSERT_GE(appendOptionalStrings(message, &strings), 0);
    ASSERT_GE(appendOptionalString(message, nullptr), 0);
    ASSERT_GE(appendOptionalString(message, &text), 0);
    ASSERT_GE(appendStrings(message, {}), 0);
    ASSERT_GE(::sd_bus_message_append(message, "aa{sv}as", 2, 0, 0, 2, "1", "2"), 0);
    seal();

    const auto expectNoneThenOne = [this](auto read, const auto& one) {
        std::optional value = one;
        EXPECT_GE(read(message, value), 0);
        EXPECT_FALSE(value);
        EXPECT_GE(read(message, value), 0);
        EXPECT_EQ(value, one);
    };
    expectNoneThenOne(readOptionalDictionary, dictionary);
    expectNoneThenOne(readOptionalStrings, strings);
    expectNoneThenOne(readOptionalString, text);
    std::vector<std::string> plain{"left over"};
    EXPECT_GE(readStrings(message, plain), 0);
    EXPECT_TRUE(plain.empty());
    std::optional<Dictionary> two;
    EXPECT_EQ(readOptionalDictionary(message, two), -EBADMSG);
}

TEST_F(BusValueTest, NestingIsBoundedBothWaysAndAMillionValuesAreTheMost) {
    for (const Dictionary& deepest : {nestedDictionaries(21, 1), nestedDictionaries(20, Array{Data{}})})
        EXPECT_EQ(roundTrip(deepest), deepest);
    for (const Dictionary& tooDeep : {nestedDictionaries(21, Data{}), nestedDictionaries(200, 1)}) {
        renew();
        EXPECT_EQ(appendDictionary(message, tooDeep), -E2BIG);
    }

    // In typed containers more of them could be read than can be written with variants.
    EXPECT_GE(readTyped(21), 0);
    EXPECT_EQ(readTyped(22), -E2BIG);

    // Variants straight in variants.
    renew();
    constexpr int levels = 80;
    ASSERT_GE(::sd_bus_message_open_container(message, 'a', "v"), 0);
    for (int i = 0; i < levels; ++i) ASSERT_GE(::sd_bus_message_open_container(message, 'v', "v"), 0);
    ASSERT_GE(::sd_bus_message_append(message, "v", "i", 1), 0);
    for (int i = 0; i <= levels; ++i) ASSERT_GE(::sd_bus_message_close_container(message), 0);
    seal();
    Array read;
    EXPECT_EQ(readArray(message, read), -E2BIG);

    const std::vector<std::uint16_t> numbers(1'000'001);
    renew();
    ASSERT_GE(::sd_bus_message_append_array(message, 'q', numbers.data(), numbers.size() * 2), 0);
    seal();
    EXPECT_EQ(readArray(message, read), -E2BIG);
}

TEST_F(BusValueTest, TextsThatTheBusCannotCarryAreNotAppended) {
    for (const std::string& text : {std::string("\xff"), std::string("\xed\xa0\x80"), std::string("a\0b", 3),
                                    std::string("a noncharacter: \ufffe")}) {
        renew();
        EXPECT_EQ(appendDictionary(message, {{"k", text}}), -EINVAL);
        renew();
        EXPECT_EQ(appendDictionary(message, {{text, 1}}), -EINVAL);
        renew();
        EXPECT_EQ(appendStrings(message, {text}), -EINVAL);
    }
}

TEST_F(BusValueTest, EveryCharacterIsTakenOrRefusedAsTheBusLibraryDoes) {
    for (char32_t point = 1; point <= 0x110000; point += (point & 0xffff) == 0x2000 ? 0xb000 : 1) {
        const auto byte = [&](int shift, int mark) {
            return static_cast<char>((point >> shift & 0x3f) | mark);
        };
        std::string text("plain and ");
        if (point < 0x80)
            text += static_cast<char>(point);
        else if (point < 0x800)
            text += {byte(6, 0xc0), byte(0, 0x80)};
        else if (point < 0x10000)
            text += {byte(12, 0xe0), byte(6, 0x80), byte(0, 0x80)};
        else
            text += {byte(18, 0xf0), byte(12, 0x80), byte(6, 0x80), byte(0, 0x80)};
        if (point % 0x4000 == 1) renew();
        ASSERT_EQ(isBusText(text), ::sd_bus_message_append_basic(message, 's', text.c_str()) >= 0)
            << std::uint32_t{point};
    }
}

}  // namespace
}  // namespace quorvane::platform

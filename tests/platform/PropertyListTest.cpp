#include "platform/formats/PropertyList.h"

#include "platform/value/Bytes.h"
#include "tests/platform/Repeated.h"

#include <cmath>
#include <iterator>
#include <limits>
#include <random>
#include <string_view>

#include <fmt/format.h>

namespace quorvane::platform {
namespace {

std::optional<Value> parsed(std::string_view bytes) {
    const auto result = parsePropertyList(bytesOf(bytes));
    if (result) return *result;
    EXPECT_NE(result.error().message, "");
    return std::nullopt;
}

std::optional<Value> parsed(const Data& bytes) {
    return parsed(textOf(bytes));
}

std::string xml(std::string_view contents) {
    return "<?xml version=\"1.0\"?><!DOCTYPE plist><plist version=\"1.0\">" + std::string(contents) +
           "</plist>";
}

/// A binary list of the objects, the first its root; offsets of four bytes, references of one.
std::string binary(const std::vector<std::string>& objects, std::uint8_t root = 0) {
    std::string bytes = "bplist00";
    std::string table;
    for (const std::string& object : objects) {
        table +=
            std::string(2, '\0') + static_cast<char>(bytes.size() >> 8) + static_cast<char>(bytes.size());
        bytes += object;
    }
    const auto number = [](std::size_t value) {
        return std::string(6, '\0') + static_cast<char>(value >> 8) + static_cast<char>(value);
    };
    const std::size_t start = bytes.size();
    return bytes + table + std::string(6, '\0') + "\x04\x01" + number(objects.size()) + number(root) +
           number(start);
}

const Value kSample(Dictionary{
    {"text", "a <&>\r\n \xc3\xbc"},
    {"", ""},
    {"flag", true},
    {"signed", std::numeric_limits<std::int64_t>::min()},
    {"negative", -5},
    {"large", std::numeric_limits<std::uint64_t>::max()},
    {"real", 0.1},
    {"date", Date{1'763'280'000'000'000}},
    {"early", Date{-86'400'000'000}},
    {"data", Data{0, 1, 2, 255}},
    {"array", Array{1, Array{}, Dictionary{}, "x", "x"}},
});

TEST(PropertyList, EveryKindSurvivesBothForms) {
    const auto asXml = xmlPropertyList(kSample);
    const auto asBinary = binaryPropertyList(kSample);
    ASSERT_TRUE(asXml && asBinary);
    EXPECT_TRUE(textOf(*asXml).starts_with("<?xml"));
    EXPECT_EQ(parsed(*asXml), kSample);
    EXPECT_EQ(parsed(*asBinary), kSample);

    const Value onlyBinary(Array{Date{978'307'200'250'000}, Date{-6'000'000'000'000'000}, "a\x01",
                                 Dictionary{{"\x1b", Value(std::string("a\0b", 3))}}});
    EXPECT_EQ(parsed(*binaryPropertyList(onlyBinary)), onlyBinary);
    EXPECT_TRUE(std::isnan(parsed(*binaryPropertyList(Value(std::nan(""))))->real()));
}

TEST(PropertyList, WhatAListCannotHoldIsNotWritten) {
    for (const Value& value :
         {Value("\xff"), Value("a\x01"), Value(std::string("a\0b", 3)), Value(Dictionary{{"\xff", 1}}),
          Value(Array{Value("\x1b")}), Value(Date{std::numeric_limits<std::int64_t>::max()})}) {
        EXPECT_FALSE(xmlPropertyList(value)) << value.description();
    }
    for (const Value& value : {Value("\xff"), Value(Dictionary{{"\xff", 1}}), Value(Array{Value("\xff")})})
        EXPECT_FALSE(binaryPropertyList(value)) << value.description();
}

TEST(PropertyList, XmlAsOthersWriteItIsRead) {
    EXPECT_EQ(parsed(xml("<!-- <array> --><dict>\n<key>a</key><integer>0x10</integer>"
                         "<key>b</key><string>x<![CDATA[<array>]]>y</string>"
                         "<key>c</key><array/><key>d</key><data>AQI=\n</data>"
                         "<key>a</key><integer>-7</integer></dict>")),
              Value(Dictionary{{"a", -7}, {"b", "x<array>y"}, {"c", Array{}}, {"d", Data{1, 2}}}));
    EXPECT_EQ(parsed("\n<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><string>\xc3\xbc&#13;</string>"),
              Value("\xc3\xbc\r"));
}

TEST(PropertyList, DeepXmlIsRefusedHoweverItIsDisguised) {
    EXPECT_TRUE(parsed(xml(repeated("<array>", 128) + repeated("</array>", 128))));
    EXPECT_FALSE(parsed(xml(repeated("<array>", 129) + repeated("</array>", 129))));
    constexpr int deep = 300'000;
    for (const char* level :
         {"<array>", "<dict><key>a</key>", "<array ><!--</array>-->",
          "<array><string><![CDATA[</array>]]></string>", "<array><?x </array>?>", "<array a=\"</array>\">",
          "<array><!DOCTYPE </array>", "<array><?x \"?></array>\" ?>"})
        EXPECT_FALSE(parsed(xml(repeated(level, deep)))) << level;
    for (const char* documentType : {"<!DOCTYPE plist \"[\">", "<!DOCTYPE plist [", "<!DOCTYPE plist \">\">"})
        EXPECT_FALSE(parsed(documentType + xml(repeated("<array>", deep)))) << documentType;
    EXPECT_FALSE(parsed(xml("<array>" + repeated("<true/>", 1'000'000) + "</array>")));
}

TEST(PropertyList, MalformedListsAndThoseWithEntitiesAreAnErrorThatSaysSo) {
    for (const std::string& bytes :
         {std::string(), std::string("hello"), std::string("{}"), std::string("bplist"),
          std::string("bplist00"), std::string("<plist>"), xml(""), xml("<array>"),
          xml("<dict><string>x</string></dict>"), xml("<string>\xff</string>"),
          xml("<string>&#xD800;</string>"), xml("<date>9999-01-01T00:00:00Z</date>"), xml("<nonsense/>"),
          xml("<date>2026-01</date>"), xml("<data>A</data>"), xml("<array>text<true/></array>"),
          xml("<dict><key>a</key><key>b</key><true/></dict>"), xml("<string>a<true/>b</string>"),
          xml(std::string("<dict><key>a\0b</key><true/></dict>", 35))})
        EXPECT_FALSE(parsed(bytes)) << bytes;

    const std::string reference = "<plist><string>&a;</string></plist>";
    for (const char* documentType :
         {"", "<!DOCTYPE plist [<!ENTITY a \"a\">]>", "<!DOCTYPE plist SYSTEM \"list.dtd\">",
          "<!DOCTYPE plist [<!ENTITY a SYSTEM \"/etc/hostname\">]>",
          "<!DOCTYPE plist [<!ENTITY % a SYSTEM \"list.dtd\"> %a;]>"})
        EXPECT_FALSE(parsed(documentType + reference)) << documentType;
    EXPECT_FALSE(parsed("<!DOCTYPE plist [<!ENTITY a \"a\">]><plist><true/></plist>"));
}

/// Both took minutes where the time grew with the square.
TEST(PropertyList, ALargeTextOfEntitiesAndALargeDictionaryAreRead) {
    constexpr int size = 500'000;
    EXPECT_EQ(parsed(xml("<string>" + repeated("&lt;", size) + "</string>")), Value(std::string(size, '<')));
    std::string entries;
    for (int i = size; i > 0; --i) fmt::format_to(std::back_inserter(entries), "<key>{}</key><true/>", i);
    const auto dictionary = parsed(xml("<dict>" + entries + "</dict>"));
    ASSERT_TRUE(dictionary && dictionary->dictionary());
    EXPECT_EQ(dictionary->dictionary()->size(), std::size_t{size});
    EXPECT_TRUE(dictionary->dictionary()->boolean("1") && dictionary->dictionary()->boolean("500000"));
}

TEST(PropertyList, BinaryListsThatExpandWithoutBoundOrAreDeepAreRefused) {
    // Thirty arrays, each of eight references to the next.
    std::vector<std::string> objects;
    for (char i = 1; i <= 30; ++i) objects.push_back("\xa8" + std::string(8, i));
    objects.emplace_back("\x51x");
    EXPECT_FALSE(parsed(binary(objects)));

    // The same text of 32 KiB, 4,096 times.
    objects = {"\xae" + std::string(14, '\1'), "\xae" + std::string(14, '\2'), "\xae" + std::string(14, '\3'),
               "\xae" + std::string(14, '\4'), std::string("\x5f\x11\x80\x00", 4) + std::string(32768, 'x')};
    EXPECT_FALSE(parsed(binary(objects)));
    objects = {"\xa2\x01\x01", "\xa2\x02\x02", "\x51x"};
    const Value pair(Array{Value("x"), Value("x")});
    EXPECT_EQ(parsed(binary(objects)), Value(Array{pair, pair}));

    for (const auto& [depth, isRead] : {std::pair(100, true), std::pair(150, false)}) {
        objects.clear();
        for (int i = 1; i <= depth; ++i) objects.push_back("\xa1" + std::string(1, static_cast<char>(i)));
        objects.emplace_back("\x51x");
        EXPECT_EQ(parsed(binary(objects)).has_value(), isRead) << depth;
    }
}

TEST(PropertyList, BinaryListsThatReferToThemselvesOrToNothingOrToNoValuesAreRefused) {
    for (const std::vector<std::string>& objects : std::vector<std::vector<std::string>>{
             {std::string("\xa1\x00", 2)},
             {std::string("\xa1\x01", 2), std::string("\xd1\x02\x00", 3), "\x51k"},
             {"\xa1\x07"},
             {std::string("\xaf\x13\xff\xff\xff\xff\xff\xff\xff\xff", 10)},
             {std::string("\x4f\x12\x7f\xff\xff\xff", 6)},
             {std::string("\x80\x00", 2)},
             {"\xa1\x01", "\x80\x01"},
             {"\xd1\x01\x01", "\x10\x01"},
             // A UTF-16 text with half a surrogate pair.
             {std::string("\x61\xd8\x00", 3)}})
        EXPECT_FALSE(parsed(binary(objects))) << testing::PrintToString(objects);
    EXPECT_FALSE(parsed(binary({"\x51x"}, 3)));
    EXPECT_EQ(parsed(binary({"\xd1\x01\x01", std::string("\x53k\0y", 4)})),
              Value(Dictionary{{std::string("k\0y", 3), std::string("k\0y", 3)}}));
    EXPECT_EQ(parsed(binary({std::string("\x62\xd8\x3d\xde\x00", 5)})), Value("\xf0\x9f\x98\x80"));
}

TEST(PropertyList, DamagedListsNeverDoMoreThanFail) {
    std::mt19937 random(1);
    for (const auto& whole : {*xmlPropertyList(kSample), *binaryPropertyList(kSample)}) {
        for (int round = 0; round < 10'000; ++round) {
            Data bytes = whole;
            // The trailer at the end makes a binary list, so only some are cut short.
            if (random() % 4 == 0) bytes.resize(random() % (bytes.size() + 1));
            for (int i = 1 + random() % 4; i > 0 && !bytes.empty(); --i)
                bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
            parsed(bytes);
        }
    }
}

}  // namespace
}  // namespace quorvane::platform

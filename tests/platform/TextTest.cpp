#include "platform/value/Text.h"

#include "platform/value/Url.h"

namespace quorvane::platform {
namespace {

// The process runs in the "C" locale here, as the daemon does.

TEST(TextTest, LetterCaseIsThatOfUnicodeInAnyLocale) {
    EXPECT_EQ(lowercased("Mail-01"), "mail-01");
    EXPECT_EQ(lowercased("ÄÖÜ ΣΕ ЖЯ \u1e9e \U00010400"), "äöü σε жя ß \U00010428");
    for (const auto& [one, other, equal] :
         {std::tuple("ÄRGER", "ärger", true), std::tuple("\u212a2", "k2", true),
          std::tuple("Straße", "STRASSE", false), std::tuple("Mail", "Mails", false),
          std::tuple("@", "`", false), std::tuple("[", "{", false)})
        EXPECT_EQ(equalsIgnoringCase(one, other), equal) << one << " " << other;
    for (const auto& [whole, part, held] :
         {std::tuple("com.velmora.MailSync", "mailsync", true), std::tuple("Gerät ÜBER", "über", true),
          std::tuple("5 \u212a", "k", true), std::tuple("", "", true), std::tuple("Mail", "", true),
          std::tuple("", "m", false), std::tuple("Mail", "Mails", false), std::tuple("Ö", "ä", false)})
        EXPECT_EQ(containsIgnoringCase(whole, part), held) << whole << " " << part;
}

TEST(TextTest, BytesThatAreNotUtf8StandForThemselves) {
    // A lone start, an overlong form, a surrogate, a number above the last code point, a cut sequence.
    for (const std::string bytes : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xf5\x80\x80\x80", "A\xe2\x82"}) {
        EXPECT_TRUE(equalsIgnoringCase(bytes, bytes));
        EXPECT_EQ(lowercased(bytes).size(), bytes.size());
        EXPECT_EQ(lowercased(bytes).back(), bytes.back());
        EXPECT_FALSE(equalsIgnoringCase(bytes, bytes.substr(1)));
    }
    EXPECT_FALSE(equalsIgnoringCase("\xe4", "ä")) << "a byte is not the code point of its number";
}

TEST(TextTest, ControlCharactersAreWrittenOut) {
    using namespace std::string_view_literals;
    EXPECT_EQ(escapedControls("a\n\r\t\0\x1b\x7fä"sv, ""), "a\\n\\r\\x09\\x00\\x1b\\x7fä");
    EXPECT_EQ(escapedControls("a\n\tb\r"sv, "\n\t"), "a\n\tb\\r");
    EXPECT_EQ(escapedControls("\u0080\u009b2J\u009f\u00a0\x9b\xff"sv, ""),
              "\\x80\\x9b2J\\x9f\u00a0\\x9b\xff");
    EXPECT_EQ(escapedAsciiControls("\u009b\x7f\r"sv, "\x7f"), "\u009b\x7f\\r");
}

TEST(UrlTest, AQueryTakesOnlyItsOwnCharactersAsTheyStandAndPrintsOnOneLine) {
    const std::string kept = "azAZ09-._~!$&'()*+,;=:@/?";
    EXPECT_EQ(queryPercentEncoded(kept), kept);
    EXPECT_EQ(queryPercentEncoded("a b\r\n#%\"<>[]\\^`{|}\x7f\xc3\xbc"),
              "a%20b%0D%0A%23%25%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D%7F%C3%BC");
    EXPECT_EQ(queryPercentEncoded(std::string(1, '\0')), "%00");
    EXPECT_EQ(percentEncodedBlanks("file:///a b\r\n%20\x7f\u00e9"), "file:///a%20b%0D%0A%20%7F\u00e9");
}

TEST(UrlTest, KnowsAUrlByItsCharacters) {
    for (const char* url : {"https://host/path?query=%20#part", "http://[::1]:80", "x-y.z+1:rest"})
        EXPECT_TRUE(isUrl(url)) << url;
    for (const char* text :
         {"", "host/path", ":rest", "1a:rest", "https://a b", "https://a\r\nb", "https://a%2", "https://a%zz",
          "https://\xc3\xbc", "https://a\"b", "https://a\\b"})
        EXPECT_FALSE(isUrl(text)) << text;
    EXPECT_FALSE(isUrl(std::string("https://a\0b", 11)));
    EXPECT_TRUE(hasScheme("HTTPS://host"));
    for (const char* text : {"", "host/path", "host:80/a", "//host", "://host", "host/a://b"})
        EXPECT_FALSE(hasScheme(text)) << text;
}

}  // namespace
}  // namespace quorvane::platform

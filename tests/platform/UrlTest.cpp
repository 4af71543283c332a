#include "platform/Url.h"

#include <string>

#include <gtest/gtest.h>

namespace quorvane::platform {
namespace {

TEST(Url, AQueryTakesOnlyItsOwnCharactersAsTheyStand) {
    const std::string kept = "azAZ09-._~!$&'()*+,;=:@/?";
    EXPECT_EQ(queryPercentEncoded(kept), kept);
    EXPECT_EQ(queryPercentEncoded("a b\r\n#%\"<>[]\\^`{|}\x7f\xc3\xbc"),
              "a%20b%0D%0A%23%25%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D%7F%C3%BC");
    EXPECT_EQ(queryPercentEncoded(std::string(1, '\0')), "%00");
}

TEST(Url, PrintsOnOneLine) {
    EXPECT_EQ(percentEncodedBlanks("file:///a b\r\n%20\x7f\u00e9"), "file:///a%20b%0D%0A%20%7F\u00e9");
}

TEST(Url, KnowsAUrlByItsCharacters) {
    for (const char* url : {"https://host/path?query=%20#part", "http://[::1]:80", "x-y.z+1:rest"})
        EXPECT_TRUE(isUrl(url)) << url;
    for (const char* text :
         {"", "host/path", ":rest", "1a:rest", "https://a b", "https://a\r\nb", "https://a%2", "https://a%zz",
          "https://\xc3\xbc", "https://a\"b", "https://a\\b"})
        EXPECT_FALSE(isUrl(text)) << text;
    EXPECT_FALSE(isUrl(std::string("https://a\0b", 11)));
}

}  // namespace
}  // namespace quorvane::platform

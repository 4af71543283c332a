#include "session/FileURL.h"

#include <gtest/gtest.h>

namespace quorvane {
namespace {

TEST(FileURL, NamesTheFilesPath) {
    for (const auto& [url, path] : {std::pair{"file:///var/log/a", "/var/log/a"},
                                    {"FILE://LocalHost/a", "/a"},
                                    {"file:/a", "/a"},
                                    {"file:///a%20b%2Fc%C3%A9", "/a b/c\u00e9"},
                                    {"file:///a\u00e9", "/a\u00e9"},
                                    {"file:///a?b#c", "/a"},
                                    {"file:///a%3Fb#c", "/a?b"}})
        EXPECT_EQ(pathOfFileURL(url), path) << url;
}

TEST(FileURL, RefusesWhatNamesNoFileHere) {
    for (const char* url : {"", "file", "file:", "file:a", "file://", "/var/log/a", "https://host.invalid/a",
                            "file://elsewhere.invalid/a", "file:///a%", "file:///a%2", "file:///a%zz",
                            "file:///a%00", "file:///a b", "file:///a\nb"})
        EXPECT_EQ(pathOfFileURL(url), std::nullopt) << url;
    EXPECT_EQ(pathOfFileURL(std::string_view("file:///a\0b", 11)), std::nullopt);
}

}  // namespace
}  // namespace quorvane

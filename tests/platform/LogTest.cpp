#include "platform/base/Log.h"

#include "platform/value/Text.h"
#include "tests/support/RootFixture.h"

namespace quorvane::platform {
namespace {

class LogTest : public RootFixture {};

TEST_F(LogTest, NoControlCharacterPassesAndOnlyWarningsAreCut) {
    logError("{}\t\u009b2J\r\x7f\n", "\x1b[0m");
    logError("{}", std::string(5000, 'e'));
    std::string umlauts;
    for (int i = 0; i < 5000; ++i) umlauts += "\u00fc";
    logWarning("a{}", umlauts);
    logWarning("b{}", umlauts);
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "<3>\\x1b[0m\t\\x9b2J\\r\\x7f");
    EXPECT_EQ(lines[1].size(), 5003u);
    for (const std::string& line : {lines[2], lines[3]}) {
        EXPECT_LE(line.size(), 3 + 1024u);
        EXPECT_GT(line.size(), 1000u);
        EXPECT_TRUE(isUtf8(line) && line.ends_with("..."));
    }
}

}  // namespace
}  // namespace quorvane::platform

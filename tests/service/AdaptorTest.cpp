#include "tests/support/DaemonFixture.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

TEST(AdaptorTest, EveryEventOfASessionReachesTheAdaptorThoughTheDaemonIsConfined) {
    DaemonFixture device;
    Dictionary section = device.httpPostSection();
    section.set("ossel", Dictionary());
    section.set("joulary", Dictionary());
    device.serveStorebag(section);
    std::filesystem::create_directories(device.root() / "usr/lib/quorvane");
    std::filesystem::copy_file(QUORVANE_BUNDLE_SAMPLE, device.root() / "usr/lib/quorvane/OsselAdaptor.so");
    device.start();
    // What the adaptor was given, a line for each message.
    const auto messages = [&] {
        std::ifstream file(device.root() / "var/lib/quorvane/ossel-messages.log");
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    {
        Client client = device.connect();
        ASSERT_TRUE(client.setSessionInfo({.sessionID = 41, .clientType = 7}));
        EXPECT_THAT(*client.start(), Optional(ElementsAre("httppost", "joulary", "ossel")));
        EXPECT_THAT(*client.send({.category = 12, .type = 3, .payload = {{{"n", 1}}}}),
                    Optional(HasSubstr("\"n\": 1")));
        EXPECT_THAT(messages(), HasSubstr(" method=12 respCode=3 {\"n\": 1}\n"));
    }
    EXPECT_THAT(messages(), HasSubstr(" method=0 respCode=0 {\"AutomaticTimeSet\": true}\n"));
    EXPECT_TRUE(eventually([&] { return messages().find(" method=0 respCode=1 ") != std::string::npos; }))
        << "the session's last event";
    EXPECT_FALSE(std::filesystem::exists(device.root() / "var/lib/quorvane/power-log.jsonl"))
        << "which no event of a session is for";
}

}  // namespace
}  // namespace quorvane::test

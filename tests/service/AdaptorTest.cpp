#include "tests/support/DaemonFixture.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

class AdaptorTest : public testing::Test {
  protected:
    AdaptorTest() {
        Dictionary section = _device.httpPostSection();
        section.set("ossel", Dictionary());
        section.set("joulary", Dictionary());
        _device.serveStorebag(section);
        const auto folder = _device.root() / "usr/lib/quorvane";
        std::filesystem::create_directories(folder);
        std::filesystem::copy_file(QUORVANE_BUNDLE_SAMPLE, folder / "OsselAdaptor.so");
        _device.start();
    }

    /// What the adaptor was given, a line for each message.
    std::string messages() const {
        std::ifstream file(_device.root() / "var/lib/quorvane/ossel-messages.log");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static SessionInfo session(std::uint32_t clientType) {
        return {.sessionID = 41, .clientType = clientType};
    }

    static Event event(int number) { return {.category = 12, .type = 3, .payload = {{{"n", number}}}}; }

    DaemonFixture _device;
};

TEST_F(AdaptorTest, EveryEventOfASessionReachesTheAdaptor) {
    {
        Client client = _device.connect();
        ASSERT_TRUE(client.setSessionInfo(session(7)));
        EXPECT_THAT(*client.start(), Optional(ElementsAre("httppost", "joulary", "ossel")));
        EXPECT_THAT(*client.send(event(1)), Optional(HasSubstr("\"n\": 1")));
        EXPECT_THAT(messages(), HasSubstr(" method=12 respCode=3 {\"n\": 1}\n"));
        EXPECT_TRUE(client.send({.category = 12, .type = 4}));
        EXPECT_THAT(messages(), HasSubstr(" method=12 respCode=4 (null)\n"));
    }
    EXPECT_THAT(messages(), HasSubstr(" method=0 respCode=0 {\"AutomaticTimeSet\": true}\n"));
    EXPECT_TRUE(eventually([&] { return messages().find(" method=0 respCode=1 ") != std::string::npos; }))
        << "the session's last event";
    EXPECT_FALSE(std::filesystem::exists(_device.root() / "var/lib/quorvane/power-log.jsonl"))
        << "which no event of a session is for";

    Client other = _device.connect();
    ASSERT_TRUE(other.setSessionInfo(session(5)));
    EXPECT_THAT(*other.start(), Optional(ElementsAre("httppost", "joulary")));
    EXPECT_TRUE(_device.logs("OsselBackend(initWithName): No matching bundle found for client type 5"));
}

}  // namespace
}  // namespace quorvane::test

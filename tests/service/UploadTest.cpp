#include "framework/Keys.h"
#include "platform/sandbox/SandboxExtension.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"

#include <fcntl.h>

namespace quorvane::test {
namespace {

/// A connection of its own, with a started session, for what libquorvane would not do.
class RawClient : public BusClient {
  public:
    explicit RawClient(const std::string& socketPath) : BusClient(socketPath) {
        EXPECT_EQ(call(kClientSessionInterface, "SetSessionInfo", "a{sv}aa{sv}asb", 2, "SessionID", "u", 41,
                       "ClientType", "u", 5, 0, 0, 0)
                      .error,
                  "");
        EXPECT_EQ(call(kClientSessionInterface, "StartConfig").error, "");
    }

    /// A token for the file, as the daemon gives it.
    std::string lend(const std::string& path) const {
        const platform::UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        const BusReply reply = call(kSandboxExtensionInterface, "Issue", "h", file.get());
        const char* token = "";
        EXPECT_TRUE(reply.message && ::sd_bus_message_read(reply.message.get(), "s", &token) > 0);
        return token;
    }

    /// The daemon's answer.
    bool upload(const std::string& path, const std::string& token) const {
        const BusReply reply = call(kClientSessionInterface, "UploadFileAtPath", "ss",
                                    ("file://" + path).c_str(), token.c_str());
        int success = 0;
        EXPECT_TRUE(reply.message && ::sd_bus_message_read(reply.message.get(), "b", &success) > 0);
        return success != 0;
    }
};

TEST(UploadTest, ATokenIsGoodOnItsOwnConnectionAndUsedUpByEveryCallWithIt) {
    DaemonFixture device;
    device.write("home/file.log", "contents");
    device.serveStorebag({{"uploadserver", Dictionary{{"post_url", device.server().url("/upload")}}}});
    device.answerPosts([](const ServerRequest&) { return ServerAnswer{200, {}, "success"}; });
    device.start();
    const std::string file = device.root() / "home/file.log";
    const RawClient owner(device.socketPath());
    const RawClient other(device.socketPath());

    const std::string token = owner.lend(file);
    EXPECT_FALSE(owner.upload(file, "guessed"));
    EXPECT_FALSE(other.upload(file, token));
    EXPECT_TRUE(owner.upload(file, token)) << "the attempts did not use it up";
    EXPECT_FALSE(owner.upload("/etc/passwd", owner.lend(file)));
    for (std::size_t n = 0; n <= platform::kExtensionsPerOwner; ++n)
        EXPECT_FALSE(owner.upload("elsewhere.invalid/file", owner.lend(file))) << "used up unasked for";
    EXPECT_EQ(std::ranges::count(device.server().requests(), "contents", &ServerRequest::body), 1);
    EXPECT_TRUE(std::filesystem::exists(file)) << "only the client removes it";
}

}  // namespace
}  // namespace quorvane::test

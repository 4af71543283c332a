#include "framework/Keys.h"
#include "platform/sandbox/SandboxExtension.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"

#include <fcntl.h>

#include <filesystem>

namespace quorvane::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

/// A connection of its own, with a started session, for what libquorvane would not do.
class RawClient {
  public:
    explicit RawClient(const std::string& socketPath) : _bus(socketPath) {
        const BusReply configured = _bus.call(kClientSessionInterface, "SetSessionInfo", "a{sv}aa{sv}asb", 2,
                                              "SessionID", "u", 41, "ClientType", "u", 5, 0, 0, 0);
        EXPECT_EQ(configured.error, "");
        EXPECT_EQ(_bus.call(kClientSessionInterface, "StartConfig").error, "");
    }

    /// A token for the file, as the daemon gives it.
    std::string lend(const std::filesystem::path& path) {
        const platform::UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        const BusReply reply = _bus.call(kSandboxExtensionInterface, "Issue", "h", file.get());
        const char* token = nullptr;
        EXPECT_TRUE(reply.message && ::sd_bus_message_read(reply.message.get(), "s", &token) > 0)
            << reply.error;
        return token != nullptr ? token : "";
    }

    /// The daemon's answer.
    bool upload(const std::filesystem::path& path, const std::string& token) {
        const BusReply reply = _bus.call(kClientSessionInterface, "UploadFileAtPath", "ss",
                                         ("file://" + path.string()).c_str(), token.c_str());
        int success = 0;
        EXPECT_TRUE(reply.message && ::sd_bus_message_read(reply.message.get(), "b", &success) > 0)
            << reply.error;
        return success != 0;
    }

  private:
    BusClient _bus;
};

class UploadTest : public testing::Test {
  protected:
    void SetUp() override {
        _device.write("home/file.log", kContents);
        _device.serveStorebag({{"uploadserver", Dictionary{{"post_url", _device.server().url("/upload")}}}});
        _device.answerPosts([](const ServerRequest&) { return ServerAnswer{200, {}, "success"}; });
        _device.start();
    }

    std::filesystem::path file() const { return _device.root() / "home/file.log"; }

    std::vector<ServerRequest> received() {
        std::vector<ServerRequest> requests = _device.server().requests();
        std::erase_if(requests, [](const auto& request) { return !request.target.starts_with("/upload?"); });
        return requests;
    }

    const std::string kContents = std::string(100'000, 'x');
    DaemonFixture _device;
};

TEST_F(UploadTest, ATokenIsGoodOnceOnItsOwnConnectionForItsOwnFile) {
    RawClient owner(_device.socketPath());
    RawClient other(_device.socketPath());
    _device.write("home/other.log", "other");
    std::filesystem::create_symlink("file.log", _device.root() / "home/link.log");

    const std::string token = owner.lend(file());
    for (const char* guess : {"", "token", "00000000-0000-0000-0000-000000000000"})
        EXPECT_FALSE(owner.upload(file(), guess)) << guess;
    EXPECT_FALSE(other.upload(file(), token));
    EXPECT_THAT(received(), IsEmpty());
    EXPECT_TRUE(owner.upload(file(), token)) << "the attempts did not use it up";
    EXPECT_FALSE(owner.upload(file(), token)) << "replayed";

    for (const char* wrong : {"home/other.log", "home/link.log", "home", "etc/quorvane/consent.toml"}) {
        const std::string lent = owner.lend(file());
        EXPECT_FALSE(owner.upload(_device.root() / wrong, lent)) << wrong;
        EXPECT_FALSE(owner.upload(file(), lent)) << "the wrong path used it up";
    }
    EXPECT_FALSE(owner.upload("/etc/passwd", owner.lend(file())));
    for (std::size_t n = 0; n <= platform::kExtensionsPerOwner; ++n)
        EXPECT_FALSE(owner.upload("elsewhere.invalid/file", owner.lend(file()))) << "used up unasked for";
    const auto requests = received();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, kContents);
    EXPECT_THAT(requests[0].target, HasSubstr("&sequence=41&"));
    EXPECT_THAT(requests[0].target, HasSubstr("&filename=file.log.gz&"));
    EXPECT_TRUE(std::filesystem::exists(file())) << "only the client removes it";
}

}  // namespace
}  // namespace quorvane::test

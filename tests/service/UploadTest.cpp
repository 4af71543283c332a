#include "framework/Keys.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"
#include "tests/support/KeyedArchiveReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <string>
#include <vector>

namespace quorvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Step = UploadProgress::Step;

/// A connection of its own, with a started session, for what libquorvane would not do.
class RawClient {
  public:
    explicit RawClient(const std::string& socketPath) : _bus(socketPath) {
        constexpr const char* info = "a{sv}aa{sv}asb";
        EXPECT_EQ(call("SetSessionInfo", info, 2, "SessionID", "u", 41, "ClientType", "u", 5, 0, 0, 0), "");
        EXPECT_EQ(call("StartConfig"), "");
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
    template <typename... Arguments>
    std::string call(const char* member, const char* types = "", Arguments... arguments) {
        return _bus.call(kClientSessionInterface, member, types, arguments...).error;
    }

    BusClient _bus;
};

class UploadTest : public testing::Test {
  protected:
    void SetUp() override {
        _device.write("home/file.log", kContents);
        Dictionary section = _device.httpPostSection();
        section.set("uploadserver", Dictionary{{"post_url", _device.server().url("/upload")}});
        section.set(
            "dashboard",
            Dictionary{{"ip", "127.0.0.1"}, {"port", 9}, {"post_url", _device.server().url("/logdata")}});
        _device.serveStorebag(section);
        answer("{\"result\":\"success\"}");
        _device.start();
    }

    void answer(const std::string& reply) {
        _device.answerPosts([reply](const ServerRequest&) { return ServerAnswer{200, {}, reply}; });
    }

    Client client() const { return _device.startedClient({.sessionID = 41, .clientType = 5}); }
    std::filesystem::path file() const { return _device.root() / "home/file.log"; }

    /// What has been posted to the path, query keys aside.
    std::vector<ServerRequest> received(const std::string& path) {
        std::vector<ServerRequest> requests = _device.server().requests();
        std::erase_if(requests, [&](const ServerRequest& request) {
            return request.target.substr(0, request.target.find('?')) != path;
        });
        return requests;
    }

    const std::string kContents = std::string(100'000, 'x');
    DaemonFixture _device;
};

TEST_F(UploadTest, AFileIsSentThroughTheSandboxAndRemovedByItsClient) {
    Client sender = client();
    std::vector<Step> steps;
    const auto uploaded =
        sender.uploadFile(file(), [&](const UploadProgress& progress) { steps.push_back(progress.step); });
    ASSERT_TRUE(uploaded) << uploaded.error().message;
    EXPECT_TRUE(*uploaded);
    EXPECT_THAT(steps, ElementsAre(Step::Opened, Step::Lent, Step::Finished));

    const auto requests = received("/upload");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, kContents);
    EXPECT_THAT(requests[0].target, testing::HasSubstr("&sequence=41&"));
    EXPECT_THAT(requests[0].target, testing::HasSubstr("&filename=file.log.gz&raw=true"));
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(file()); }));
}

TEST_F(UploadTest, AFileThatTheServerDoesNotTakeStays) {
    answer("no");
    Client sender = client();
    EXPECT_TRUE(*sender.uploadFile(file()));
    EXPECT_EQ(received("/upload").size(), 1u);
    EXPECT_TRUE(sender.displayURL());
    EXPECT_TRUE(std::filesystem::exists(file()));
}

TEST_F(UploadTest, ATokenIsGoodOnceOnItsOwnConnectionForItsOwnFile) {
    RawClient owner(_device.socketPath());
    RawClient other(_device.socketPath());
    _device.write("home/other.log", "other");
    std::filesystem::create_symlink("file.log", _device.root() / "home/link.log");

    const std::string token = owner.lend(file());
    for (const char* guess : {"", "token", "00000000-0000-0000-0000-000000000000"})
        EXPECT_FALSE(owner.upload(file(), guess)) << guess;
    EXPECT_FALSE(other.upload(file(), token));
    EXPECT_THAT(received("/upload"), IsEmpty());
    EXPECT_TRUE(owner.upload(file(), token)) << "the attempts did not use it up";
    EXPECT_FALSE(owner.upload(file(), token)) << "replayed";

    for (const char* wrong : {"home/other.log", "home/link.log", "home", "etc/quorvane/consent.toml"}) {
        const std::string lent = owner.lend(file());
        EXPECT_FALSE(owner.upload(_device.root() / wrong, lent)) << wrong;
        EXPECT_FALSE(owner.upload(file(), lent)) << "the wrong path used it up";
    }
    EXPECT_FALSE(owner.upload("/etc/passwd", owner.lend(file())));
    EXPECT_EQ(received("/upload").size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(file())) << "only the client removes it";
}

TEST_F(UploadTest, LogDataIsPostedAsAnArchive) {
    Client sender = client();
    const Array logData{Value(Dictionary{{"line", "a\xc3\xbc"}, {"level", 3}}), "text"};
    EXPECT_TRUE(*sender.uploadLogData(logData));
    const auto requests = received("/logdata");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(archivedJson(requests[0].body), R"([{"level": 3, "line": "a\u00fc"}, "text"])");
    EXPECT_TRUE(_device.logs("uploadLogData: Log data array upload successful"));
}

TEST_F(UploadTest, AServerThatIsGoneLeavesTheDaemonServing) {
    Dictionary section;
    section.set("uploadserver", Dictionary{{"post_url", "https://127.0.0.1:1/upload"}});
    _device.serveStorebag(section, "");
    Client sender = _device.startedClient({.sessionID = 42, .clientType = 6});
    EXPECT_TRUE(*sender.uploadFile(file()));
    EXPECT_TRUE(_device.logs("<3>UploadBackend(uploadFileAtPath): post "));
    EXPECT_FALSE(*sender.uploadLogData({"line"}));
    EXPECT_TRUE(std::filesystem::exists(file()));
}

}  // namespace
}  // namespace quorvane::test

#include "framework/Keys.h"
#include "platform/BusValue.h"
#include "platform/UniqueDescriptor.h"
#include "tests/support/BusClient.h"
#include "tests/support/DaemonFixture.h"

#include <fcntl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace quorvane::test {
namespace {

/// Files outside of what the daemon's sandbox lets it read.
class UploadsTest : public testing::Test {
  protected:
    void SetUp() override {
        _device.serveStorebag({{"uploadserver", Dictionary{{"post_url", _device.server().url("/upload")}}}});
        _device.answerPosts([](const ServerRequest&) { return ServerAnswer{200, {}, "success"}; });
        _device.write("home/report.log", "what happened");
        _device.start();
    }

    std::string path() const { return (_device.root() / "home/report.log").string(); }

    /// The bodies of the uploads that came.
    std::vector<std::string> uploads() {
        std::vector<std::string> bodies;
        for (const ServerRequest& request : _device.server().requests())
            if (request.target.starts_with("/upload")) bodies.push_back(request.body);
        return bodies;
    }

    static void startSession(const BusClient& client) {
        const Message info = client.newCall(kClientSessionInterface, "SetSessionInfo");
        platform::appendDictionary(info.get(), {{"SessionID", 1}, {"ClientType", 5}});
        ::sd_bus_message_append(info.get(), "aa{sv}asb", 0, 0, 0);
        EXPECT_EQ(client.call(info).error, "");
        EXPECT_EQ(client.call(kClientSessionInterface, "StartConfig").error, "");
    }

    std::string lend(const BusClient& client) const {
        const platform::UniqueDescriptor file(::open(path().c_str(), O_RDONLY | O_CLOEXEC));
        const BusReply reply = client.call(kSandboxExtensionInterface, "Issue", "h", file.get());
        const char* token = "";
        if (reply.message) ::sd_bus_message_read(reply.message.get(), "s", &token);
        return token;
    }

    bool upload(const BusClient& client, const std::string& token) const {
        const BusReply reply = client.call(kClientSessionInterface, "UploadFileAtPath", "ss",
                                           ("file://" + path()).c_str(), token.c_str());
        int success = -1;
        if (reply.message) ::sd_bus_message_read(reply.message.get(), "b", &success);
        EXPECT_NE(success, -1) << reply.error;
        return success == 1;
    }

    DaemonFixture _device;
};

TEST_F(UploadsTest, ALentFileIsUploadedAndRemovedByItsClientWhenTheServerHasIt) {
    Client client = _device.startedClient({.sessionID = 1, .clientType = 5});
    const auto uploaded = client.uploadFile(path());
    ASSERT_TRUE(uploaded) << uploaded.error().message;
    EXPECT_TRUE(*uploaded);
    EXPECT_THAT(uploads(), testing::ElementsAre("what happened"));
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(path()); }));
}

TEST_F(UploadsTest, AFileIsReadableWithItsOwnConnectionsTokenOnly) {
    const BusClient owner(_device.socketPath());
    const BusClient thief(_device.socketPath());
    startSession(owner);
    startSession(thief);
    const std::string token = lend(owner);
    EXPECT_FALSE(upload(thief, token));
    EXPECT_FALSE(upload(thief, ""));
    EXPECT_FALSE(upload(thief, "0123"));
    EXPECT_THAT(uploads(), testing::IsEmpty());
    EXPECT_TRUE(upload(owner, token)) << "the attempt did not use it up";
    EXPECT_FALSE(upload(owner, token)) << "it is good once";
    EXPECT_THAT(uploads(), testing::ElementsAre("what happened"));
}

}  // namespace
}  // namespace quorvane::test

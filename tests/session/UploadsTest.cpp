#include "platform/SandboxExtension.h"
#include "platform/UniqueDescriptor.h"
#include "tests/session/SessionFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class UploadsTest : public SessionFixture {
  protected:
    static std::vector<bool> upload(QuorvanedSession& session, const std::string& fileURL,
                                    const std::string& token = "token") {
        std::vector<bool> replies;
        session.uploadFileAtPath(fileURL, token, [&](bool success) { replies.push_back(success); });
        return replies;
    }

    static std::vector<bool> upload(QuorvanedSession& session, const Array& logData) {
        std::vector<bool> replies;
        session.uploadLogData(logData, [&](bool success, const Answer& error) {
            EXPECT_EQ(error, std::nullopt);
            replies.push_back(success);
        });
        return replies;
    }
};

TEST_F(UploadsTest, OneBackendThatTakesTheUploadIsEnough) {
    const Dictionary uploading{{"post_url", _server->url("/upload")}};
    Dictionary dashboard{{"ip", "127.0.0.1"}, {"port", 9}, {"post_url", _server->url("/logdata")}};
    _delegate.storebag =
        storebagWith({{"dashboard", dashboard}, {"httppost", profile()}, {"uploadserver", uploading}});
    const auto session = startedSession();
    write("a b.log", "contents");
    const std::string path = std::filesystem::canonical(_root) / "a b.log";
    const std::string url = "file://" + (std::filesystem::canonical(_root) / "a%20b.log").string();
    const auto owner = platform::newExtensionOwner(1000);
    platform::UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const std::string token = platform::issueSandboxExtension(owner, std::move(file), {}).value_or("");

    EXPECT_THAT(upload(*session, url, token), ElementsAre(true));
    EXPECT_EQ(logged("<7>uploadFileWithURL: File upload successful for " + path), 1u);
    EXPECT_THAT(messageLog(), HasSubstr(") [uploadFileWithURL] Upload succeeded for file " + url + "\n"));
    EXPECT_THAT(upload(*session, Array{"line"}), ElementsAre(true));
    EXPECT_EQ(logged("<7>uploadLogData: Log data array upload successful"), 1u);
    EXPECT_EQ(_server->requestCount(), 2u);
    platform::revokeSandboxExtensions(owner);
}

TEST_F(UploadsTest, BackendsThatTakeNoUploadsAnswerNo) {
    for (const auto& session : {makeSession(), startedSession()}) {
        EXPECT_THAT(upload(*session, "file:///var/log/a%20b"), ElementsAre(false));
        EXPECT_THAT(upload(*session, Array{Value(Dictionary{{"name", "value"}})}), ElementsAre(false));
    }
    EXPECT_EQ(logged("<7>uploadFileAtPath: Uploading file for session 7"), 1u);
    EXPECT_EQ(logged("<3>uploadFileWithURL: File upload failed for /var/log/a b"), 2u);
    EXPECT_THAT(messageLog(),
                HasSubstr(") [uploadFileWithURL] Upload failed for file file:///var/log/a%20b\n"));
    EXPECT_EQ(logged("<7>uploadLogData: Uploading log data array: ({name = value;})"), 2u);
    EXPECT_EQ(logged("<3>uploadLogData: Log data array upload failed"), 2u);
}

TEST_F(UploadsTest, AnyTextMayComeAsAFilesURL) {
    const auto session = startedSession();
    EXPECT_THAT(upload(*session, "no URL\n(forged) line"), ElementsAre(false));
    EXPECT_EQ(logged("<3>uploadFileWithURL: File upload failed for (null)"), 1u);
    EXPECT_THAT(messageLog(), HasSubstr("Upload failed for file no%20URL%0A(forged)%20line\n"));
    session->uploadFileAtPath("", "", {});
    session->uploadLogData({}, {});
}

}  // namespace
}  // namespace quorvane

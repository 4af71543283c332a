#include "session/FileURL.h"
#include "tests/session/SessionFixture.h"

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

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

class SessionUploadsTest : public SessionFixture {
  protected:
    static std::vector<bool> upload(QuorvanedSession& session, const std::string& fileURL) {
        std::vector<bool> replies;
        session.uploadFileAtPath(fileURL, "token", [&](bool success) { replies.push_back(success); });
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

TEST_F(SessionUploadsTest, BackendsThatTakeNoUploadsAnswerNo) {
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

TEST_F(SessionUploadsTest, AnyTextMayComeAsAFilesURL) {
    const auto session = startedSession();
    EXPECT_THAT(upload(*session, "no URL\n(forged) line\u009b"), ElementsAre(false));
    EXPECT_EQ(logged("<3>uploadFileWithURL: File upload failed for (null)"), 1u);
    EXPECT_THAT(messageLog(), HasSubstr("Upload failed for file no%20URL%0A(forged)%20line\\x9b\n"));
    session->uploadFileAtPath("", "", {});

    const std::string longest = "file:///" + std::string(kMaximumFileURLBytes - 8, 'a');
    EXPECT_NE(pathOfFileURL(longest), std::nullopt);
    EXPECT_THAT(upload(*session, longest + 'a'), ElementsAre(false));
    EXPECT_EQ(logged("<3>uploadFileWithURL: File upload failed for (null)"), 3u);
    EXPECT_THAT(messageLog(), HasSubstr("failed for file " + longest.substr(0, 1024) + "...\n"));
    session->uploadLogData({}, {});
}

}  // namespace
}  // namespace quorvane

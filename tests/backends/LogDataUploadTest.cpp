#include "backends/DashboardBackend.h"

#include "tests/backends/BackendFixture.h"
#include "tests/support/KeyedArchiveReader.h"

#include <string>

namespace quorvane {
namespace {

class LogDataUploadTest : public PostingFixture {
  protected:
    static std::shared_ptr<DashboardBackend> backendFor(std::optional<std::string> url) {
        Dictionary profile{{"ip", "127.0.0.1"}, {"port", 9}};
        if (url) profile.set("post_url", *url);
        return DashboardBackend::initWithName("dashboard",
                                              std::make_shared<const Dictionary>(std::move(profile)), "F");
    }

    const Array _logData{Value(Dictionary{{"line", "a \xc3\xbc\x1b[0m"}, {"number", 3}, {"bytes", Data{1}}}),
                         "text"};
};

TEST_F(LogDataUploadTest, PostsAnArchiveAndKeepsWhereItWent) {
    _server->answerWith({200, {}, "logdata-1.plist"});
    const auto backend = backendFor(_server->url("/logdata"));
    EXPECT_TRUE(backend->uploadLogData(_logData));

    ASSERT_EQ(_server->requestCount(), 1u);
    const test::ServerRequest request = _server->requests()[0];
    EXPECT_EQ(request.target, "/logdata");
    EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(request.header("Content-Encoding"), "absent");
    EXPECT_EQ(test::archivedJson(request.body),
              R"([{"bytes": {"data": "01"}, "line": "a \u00fc\u001b[0m", "number": 3}, "text"])");
    EXPECT_EQ(logged("<7>DashboardBackend(uploadLogData): Log data uploaded to logdata-1.plist"), 1u);
    EXPECT_EQ(logged("<3>"), 0u);
}

TEST_F(LogDataUploadTest, AnyAnswerIsTheLocation) {
    const auto backend = backendFor(_server->url());
    for (const test::ServerAnswer& answer :
         {test::ServerAnswer{500, {}, "broken"}, {200, {}, ""}, {200, {}, "\xff"}}) {
        _server->answerWith(answer);
        EXPECT_TRUE(backend->uploadLogData({})) << answer.body;
    }
    EXPECT_EQ(logged("<7>DashboardBackend(uploadLogData): Log data uploaded to broken"), 1u);
    EXPECT_EQ(logged("<7>DashboardBackend(uploadLogData): Log data uploaded to (null)"), 1u);
}

TEST_F(LogDataUploadTest, WhatCannotBeSentIsRefused) {
    EXPECT_FALSE(backendFor(std::nullopt)->uploadLogData(_logData));
    EXPECT_EQ(logged("<3>DashboardBackend(uploadLogData): Post URL for log data array is nil"), 1u);
    const auto backend = backendFor(_server->url());
    EXPECT_FALSE(backend->uploadLogData({Value("\xff")}));
    EXPECT_EQ(logged("<3>DashboardBackend(uploadLogData): Failed to serialize log data array for upload"),
              1u);
    EXPECT_EQ(_server->requestCount(), 0u);
    for (const char* url : {"https://127.0.0.1:1", "file:///etc/passwd", "no URL"})
        EXPECT_FALSE(backendFor(url)->uploadLogData(_logData)) << url;
    EXPECT_EQ(logged("<3>DashboardBackend(uploadLogData): Error uploading log data array ("), 3u);
    EXPECT_EQ(logged("((null))"), 0u);
}

}  // namespace
}  // namespace quorvane

#include "backends/DashboardBackend.h"

#include "platform/formats/KeyedArchive.h"
#include "tests/backends/BackendFixture.h"
#include "tests/support/UdpPeer.h"

#include <sys/resource.h>

namespace quorvane {
namespace {

using Text = QuorvaneBackend::OptionalString;

class DashboardBackendTest : public BackendFixture {
  protected:
    std::shared_ptr<const Dictionary> profile(Dictionary further = {}) const {
        further.set("ip", "127.0.0.1");
        further.set("port", _collector.port());
        return shared(std::move(further));
    }

    std::shared_ptr<DashboardBackend> backend(Dictionary further = {}) const {
        auto made = DashboardBackend::initWithName("dashboard", profile(std::move(further)), "Fernlight");
        EXPECT_NE(made, nullptr);
        made->setCompType(7);
        made->setClientVersion(0x0102);
        made->setSessionID(0x01020304);
        made->setUdid("0123456789abcdef");
        made->setSelfVersion("7.1");
        return made;
    }

    static Text sendTo(DashboardBackend& backend, const Dictionary& message) {
        return backend.sendMessage(&message, {12, 345'678}, 0x1112, 0x1314, EventID{0x1516});
    }

    /// What arrives behind the header.
    std::string textOf(const Dictionary& message) {
        const auto sender = backend();
        sendTo(*sender, message);
        const Data datagram = _collector.receive().value_or(Data(64));
        EXPECT_EQ(static_cast<std::uint16_t>(~(datagram[14] << 8 | datagram[15])), datagram.size());
        return {datagram.begin() + 64, datagram.end()};
    }

    test::UdpPeer _collector;
};

TEST_F(DashboardBackendTest, SendsTheHeaderAloneForAnEmptyMessage) {
    const auto plain = backend();
    sendTo(*plain, {});
    Data expected{7,    7,    1,    86,   0,    0,    0,    12,   0xfe, 0xfd,
                  0xfc, 0xfb, 0xfe, 0xfd, 0xff, 0xbf, 0x11, 0x12, 0x13, 0x14};
    for (const char c : std::string("0123456789abcdef")) expected.push_back(static_cast<std::uint8_t>(c));
    expected.resize(60);
    expected.insert(expected.end(), {0x15, 0x16, 0, 0});
    EXPECT_EQ(_collector.receive(), expected);

    // The flags tell reliable delivery and an explicit address.
    const auto flagsOf = [&](const std::shared_ptr<DashboardBackend>& sender) {
        sendTo(*sender, {});
        return _collector.receive().value_or(Data(64))[63];
    };
    EXPECT_EQ(flagsOf(backend({{"reliable", 3'600'000}})), 1);
    EXPECT_EQ(flagsOf(DashboardBackend::initWithName("dashboard", "127.0.0.1", _collector.port(), "F")), 3);
}

TEST_F(DashboardBackendTest, WritesTheShortestValuesFirstAndEscapesThem) {
    EXPECT_EQ(
        textOf({{"z", "a=b"}, {"y", "\\"}, {"x", "\n"}, {"w", Array{1, 2, 3}}, {"v", 12345}, {"a b=", true}}),
        " a b==1 x=empty y=\\\\ z=a\\=b w=null v=12345");
    EXPECT_EQ(textOf({{"date", Date{}}, {"data", Data{1}}, {"half", 0.5}, {"gone", std::string("a\0b", 3)}}),
              " gone=a half=0.5 data=null date=null");
    EXPECT_EQ(textOf({{"long", "abcd"}, {"short", "\xc3\xa9\xc3\xa9\xc3\xa9"}}),
              " short=\xc3\xa9\xc3\xa9\xc3\xa9 long=abcd")
        << "characters count, not bytes";
}

TEST_F(DashboardBackendTest, CutsTheTextAt1023Bytes) {
    EXPECT_EQ(textOf({{"k", std::string(1'020, 'x')}}), " k=" + std::string(1'020, 'x'));
    EXPECT_EQ(textOf({{"k", std::string(5'000, 'x')}}), " k=" + std::string(1'020, 'x'));
    EXPECT_EQ(textOf({{std::string(5'000, 'k'), "x"}}), " " + std::string(1'022, 'k'));
}

TEST_F(DashboardBackendTest, AnswersWithOneLineForTheLocalLogExceptToTheSessionsOwnEvents) {
    const auto sender = backend();
    EXPECT_EQ(send(*sender, {{"a", 1}}), std::nullopt);
    EXPECT_EQ(_collector.receive(std::chrono::milliseconds(0)), std::nullopt);
    EXPECT_EQ(sendTo(*sender, {{"a", 1}}),
              "12.344 0123456789abcdef 127.0.0.1 CFX   258 16909060  5398  4370  4884  a=1");
    EXPECT_EQ(sendTo(*sender, {{"a\r\nforged", "b\rc"}}).value_or("").find("4884  a\\r\\nforged=b\\rc"), 66u);
    EXPECT_EQ(sendTo(*sender, {{"a", std::string(1'000, '\1')}}).value_or("").size(), 1'151u);
}

TEST_F(DashboardBackendTest, SurvivesFactsOutOfRange) {
    const auto sender = backend();
    sender->setUdid(nullptr);
    for (const int type : {-1, 12, 255, 256 + 7}) {
        sender->setCompType(type);
        EXPECT_EQ(sendTo(*sender, {}).value_or("").find(type == 263 ? "127.0.0.1 CFX" : "127.0.0.1 UNK"), 8u);
    }
    EXPECT_NE(sender->sendMessage(nullptr, {-1, 999'999}, 0, 0, EventID{0}), std::nullopt);
    sender->setUdid("0123456789012345678901234567890123456789 and more");
    EXPECT_EQ(sendTo(*sender, {}).value_or("").find("0123456789012345678901234567890123456789 127."), 7u);
}

TEST_F(DashboardBackendTest, RefusesAProfileWithoutACollector) {
    const auto refused = [&](const Dictionary& profile, const char* line) {
        EXPECT_EQ(DashboardBackend::initWithName("dashboard", shared(profile), "F"), nullptr);
        EXPECT_EQ(logged(std::string("<3>DashboardBackend(initWithName): ") + line), 1u) << line;
    };
    refused({{"port", 1}}, "can't resolve server IP");
    refused({{"ip", "127.0.0.1"}}, "can't resolve server port");
    refused({{"ip", "collector.invalid"}, {"port", 9}}, "socket connect() failed.");
    EXPECT_EQ(DashboardBackend::initWithName("dashboard", nullptr, std::nullopt, 9, "F"), nullptr);
    EXPECT_EQ(logged("<3>DashboardBackend(initWithName): initWitName with all null params."), 1u);
    EXPECT_EQ(DashboardBackend::initWithName("dashboard", "127.0.0.1", 0, "F"), nullptr);
    EXPECT_EQ(logged("<3>"), 4u);

    // No descriptor is left for a socket.
    backend();  // The event thread runs.
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto made = DashboardBackend::initWithName("dashboard", profile(), "F");
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(logged("<3>DashboardBackend(initWithName): socket() failed (24)"), 1u);
}

class LogDataUploadTest : public PostingFixture {
  protected:
    static std::shared_ptr<DashboardBackend> backendFor(std::optional<std::string> url) {
        Dictionary profile{{"ip", "127.0.0.1"}, {"port", 9}};
        if (url) profile.set("post_url", *url);
        return DashboardBackend::initWithName("dashboard", shared(std::move(profile)), "F");
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
    EXPECT_EQ(Data(request.body.begin(), request.body.end()), platform::keyedArchive(_logData));
    EXPECT_EQ(logged("<7>DashboardBackend(uploadLogData): Log data uploaded to logdata-1.plist"), 1u);
    EXPECT_EQ(logged("<3>"), 0u);
}

TEST_F(LogDataUploadTest, AnyAnswerIsTheLocationAndWhatCannotBeSentIsRefused) {
    const auto backend = backendFor(_server->url());
    for (const test::ServerAnswer& answer :
         {test::ServerAnswer{500, {}, "broken"}, {200, {}, ""}, {200, {}, "\xff"}}) {
        _server->answerWith(answer);
        EXPECT_TRUE(backend->uploadLogData({})) << answer.body;
    }
    EXPECT_EQ(logged("<7>DashboardBackend(uploadLogData): Log data uploaded to broken"), 1u);
    EXPECT_EQ(logged("<7>DashboardBackend(uploadLogData): Log data uploaded to (null)"), 1u);

    _server->forgetRequests();
    EXPECT_FALSE(backend->uploadLogData({Value("\xff")}));
    EXPECT_EQ(logged("<3>DashboardBackend(uploadLogData): Failed to serialize log data array for upload"),
              1u);
    EXPECT_EQ(_server->requestCount(), 0u);
    EXPECT_FALSE(backendFor(std::nullopt)->uploadLogData(_logData));
    EXPECT_EQ(logged("<3>DashboardBackend(uploadLogData): Post URL for log data array is nil"), 1u);
    for (const char* url : {"https://127.0.0.1:1", "file:///etc/passwd", "no URL"})
        EXPECT_FALSE(backendFor(url)->uploadLogData(_logData)) << url;
    EXPECT_EQ(logged("<3>DashboardBackend(uploadLogData): Error uploading log data array ("), 3u);
    EXPECT_EQ(logged("((null))"), 0u);
}

}  // namespace
}  // namespace quorvane

#include "platform/http/HttpSession.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HttpsServer.h"
#include "tests/support/RawServer.h"
#include "tests/support/RootFixture.h"
#include "tests/support/TestCertificate.h"

#include <atomic>
#include <future>
#include <set>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;
using test::HttpsServer;
using test::LocalSocket;
using test::RawServer;
using test::ServerAnswer;
using test::ServerRequest;
using testing::AnyOf;
using testing::HasSubstr;

Data bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

/// A server that holds every request until it is opened.
class StalledServer : public HttpsServer {
  public:
    explicit StalledServer(const std::filesystem::path& root) : HttpsServer(root) {
        setHandler([opened = _gate.get_future().share()](const ServerRequest&) {
            opened.wait();
            return ServerAnswer();
        });
    }
    void open() { _gate.set_value(); }

  private:
    std::promise<void> _gate;
};

class HttpSessionTest : public RootFixture {
  protected:
    void TearDown() override {
        setHttpWaitingBytesBound(16u << 20);
        RootFixture::TearDown();
    }

    static HttpRequest get(std::string url, std::vector<HttpHeader> headers = {}) {
        return {std::move(url), "GET", std::move(headers), {}};
    }
    static HttpRequest post(std::string url, Data body) {
        return {std::move(url), "POST", {}, std::move(body)};
    }
    static std::string errorOf(HttpRequest request) {
        return performDataTask(std::move(request)).error.value_or("no error");
    }
    static std::string errorOf(const std::string& url) { return errorOf(get(url)); }
};

TEST_F(HttpSessionTest, SendsWhatItIsGivenAndNothingMoreAndReturnsWhatItGets) {
    HttpsServer server(_root);
    server.answerWith({404, {{"X-Twice", "1"}, {"x-twice", "2"}}, "not here"});
    HttpRequest request = get(server.url("/path?q=1"));
    request.method = "PUT";
    request.headers = {{"X-Text", "a: b"}, {"Content-Type", "text/plain"}};
    request.body = bytes(std::string_view("a\0b", 3));
    const HttpResult result = performDataTask(request);

    ASSERT_FALSE(result.error) << *result.error;
    EXPECT_EQ(result.response.statusCode, 404);
    EXPECT_EQ(result.response.body, bytes("not here"));
    EXPECT_EQ(result.response.header("X-TWICE"), "1, 2");
    EXPECT_EQ(result.response.header("X-Absent"), std::nullopt);
    const ServerRequest got = server.requests().at(0);
    EXPECT_EQ(got.method, "PUT");
    EXPECT_EQ(got.target, "/path?q=1");
    EXPECT_EQ(got.header("X-Text"), "a: b");
    EXPECT_EQ(got.header("Content-Type"), "text/plain");
    EXPECT_EQ(got.header("Content-Length"), "3");
    EXPECT_EQ(got.body, std::string("a\0b", 3));

    EXPECT_EQ(errorOf(post(server.url("/"), Data(2u << 20, 'x'))), "no error");
    EXPECT_EQ(errorOf(post(server.url("/"), {})), "no error");
    const ServerRequest large = server.requests().at(1);
    EXPECT_EQ(large.header("Expect"), "absent");
    EXPECT_EQ(large.header("Content-Type"), "absent");
    EXPECT_EQ(large.body.size(), 2u << 20);
    EXPECT_EQ(server.requests().at(2).header("Content-Length"), "0");
}

TEST_F(HttpSessionTest, WhatWouldBreakTheRequestApartIsNeverSent) {
    HttpsServer server(_root);
    const std::string url = server.url("/");
    for (const std::string& value :
         {std::string("a\r\nX-Evil: 1"), std::string("a\nb"), std::string("a\0b", 3)})
        for (const HttpRequest& request : {get(url, {{"X-Text", value}}), get(url, {{"X" + value, "1"}}),
                                           HttpRequest{url, "GET" + value, {}, {}}, get(url + value)})
            EXPECT_THAT(errorOf(request), AnyOf(HasSubstr("is malformed"), HasSubstr("illegal format"),
                                                HasSubstr("holds a NUL")));
    for (const char* bad : {"", "file:///etc/passwd", "ftp://127.0.0.1/", "https://"})
        EXPECT_THAT(errorOf(bad), AnyOf(HasSubstr("illegal format"), HasSubstr("not supported")));
    EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(HttpSessionTest, TrustsTheConfiguredCertificatesAndNoOther) {
    write("etc/quorvane/trust/damaged.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    write("etc/quorvane/trust/empty.pem", "");
    HttpsServer trusted(_root);
    HttpsServer stranger;
    EXPECT_EQ(errorOf(trusted.url("/")), "no error");
    EXPECT_GE(
        logged("<4>trustConfiguredCertificates: " + (_root / "etc/quorvane/trust/damaged.pem").string()), 1u);
    EXPECT_GE(logged("empty.pem holds no readable certificates"), 1u);
    EXPECT_THAT(errorOf(stranger.url("/")), HasSubstr("certificate"));
    EXPECT_EQ(stranger.requestCount(), 0u);
}

TEST_F(HttpSessionTest, KeepsConnectionsAliveAndFollowsNoRedirect) {
    HttpsServer server(_root);
    server.answerWith({302, {{"Location", server.url("/elsewhere")}}, ""});
    for (int i = 0; i < 5; ++i) EXPECT_EQ(errorOf(server.url("/")), "no error");
    std::set<int> ports;
    for (const ServerRequest& request : server.requests()) {
        EXPECT_EQ(request.target, "/");
        ports.insert(request.clientPort);
    }
    EXPECT_EQ(server.requestCount(), 5u);
    EXPECT_EQ(ports.size(), 1u);
}

TEST_F(HttpSessionTest, PostsOverOneConnectionWhereTheServerOffersHttp2) {
    const test::TestCertificate certificate = test::makeTestCertificate();
    test::trustCertificate(certificate, _root, "http2");
    write("certificate.pem", certificate.chain);
    write("key.pem", certificate.key);
    const LocalSocket reserved;
    const int port = reserved.port();
    const auto server = test::ChildProcess::start(
        {QUORVANE_NGHTTPD, "--address=127.0.0.1", "--echo-upload", "--verbose", std::to_string(port),
         (_root / "key.pem").string(), (_root / "certificate.pem").string()});
    ASSERT_NE(server, nullptr);
    ASSERT_TRUE(server->waitForOutput("listen 127.0.0.1"));

    std::atomic<int> echoed = 0;
    for (int i = 0; i < 20; ++i) {
        const Data sent = bytes("body " + std::to_string(i));
        HttpRequest request = post(fmt::format("https://127.0.0.1:{}/events", port), sent);
        request.headers = {{"X-QVN-Sender", "ABC"}};
        startDataTask(std::move(request),
                      [&echoed, sent](const HttpResult& result) { echoed += result.response.body == sent; });
    }
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(echoed, 20);
    EXPECT_TRUE(server->waitForOutput("x-qvn-sender: ABC"));
    EXPECT_EQ(server->output().find("[id=2]"), std::string::npos) << "a second connection";
}

TEST_F(HttpSessionTest, ReceivedHeadersHoldNoLineBreaks) {
    const RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nLast-Modified: Mon\rday\r\n\r\n");
    EXPECT_EQ(performDataTask(get(server.url())).response.header("Last-Modified"), "Mon day");
}

TEST_F(HttpSessionTest, ServersThatAnswerNoHttpAreErrors) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n";
    EXPECT_THAT(errorOf(RawServer("").url()), HasSubstr("Empty reply"));
    EXPECT_THAT(errorOf(RawServer(std::string("\xff\x00garbage\n", 10)).url()), HasSubstr("HTTP/0.9"));
    EXPECT_THAT(errorOf(RawServer(head + "half").url()), HasSubstr("96 bytes"));
    EXPECT_THAT(errorOf("http://127.0.0.1:1/"), HasSubstr("onnect to 127.0.0.1"));
}

TEST_F(HttpSessionTest, EndlessAnswersAreCutAtTheBound) {
    const RawServer body("HTTP/1.1 200 OK\r\n\r\n", std::string(65536, 'x'));
    EXPECT_EQ(errorOf(body.url()), "the answer is larger than 16777216 bytes");
    const RawServer headers("HTTP/1.1 200 OK\r\n", "X-Many: " + std::string(1000, 'x') + "\r\n");
    EXPECT_EQ(errorOf(headers.url()), "the answer's headers are larger than 262144 bytes");

    HttpsServer server(_root);
    server.answerWith({200, {}, "12345"});
    HttpRequest request = get(server.url("/"));
    request.maximumResponseBytes = 5;
    EXPECT_EQ(errorOf(request), "no error");
    request.maximumResponseBytes = 4;
    EXPECT_EQ(errorOf(request), "the answer is larger than 4 bytes");
}

TEST_F(HttpSessionTest, SendersWaitWhileTheServerStallsAndNothingIsLost) {
    StalledServer stalled(_root);
    HttpsServer other(_root);
    setHttpWaitingBytesBound(10 * (1000 + 1024));
    std::atomic<int> started = 0;
    std::atomic<int> answered = 0;
    const auto count = [&](const HttpResult& result) { answered += !result.error; };
    std::thread sender([&] {
        for (int i = 0; i < 40; ++i) {
            startDataTask(post(stalled.url("/"), Data(1000, 'x')), count);
            ++started;
        }
    });
    while (started < 10) std::this_thread::yield();
    // A stalled server holds up its own senders, and only where a body has to wait.
    EXPECT_EQ(errorOf(other.url("/")), "no error");
    EXPECT_FALSE(drainHttpSession(50ms));
    EXPECT_EQ(started, 10);
    stalled.open();
    sender.join();
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(answered, 40);
    EXPECT_EQ(stalled.requestCount(), 40u);

    startDataTask(post(other.url("/"), Data(20'000, 'x')), count);
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(answered, 41) << "a body above the bound goes when nothing waits";
}

TEST_F(HttpSessionTest, WhatAThreadWaitsForDoesNotQueueBehindPostsToItsServer) {
    HttpsServer server(_root);
    std::promise<void> gate;
    server.setHandler([opened = gate.get_future().share()](const ServerRequest& request) {
        if (request.method == "POST") opened.wait();
        return ServerAnswer();
    });
    for (int i = 0; i < 20; ++i) startDataTask(post(server.url("/"), {}), nullptr);
    EXPECT_TRUE(server.waitForRequests(8));
    EXPECT_EQ(errorOf(server.url("/")), "no error");
    EXPECT_EQ(server.requestCount(), 9u);
    gate.set_value();
    EXPECT_TRUE(drainHttpSession(30s));
}

TEST_F(HttpSessionTest, AStalledRequestEndsWhenItsTimeIsUpAndALargeOneHoldsUpNobodyElse) {
    StalledServer stalled(_root);
    HttpsServer other(_root);
    HttpRequest request = get(stalled.url("/"));
    request.timeout = 1s;
    EXPECT_THAT(errorOf(request), HasSubstr("timed out"));

    setHttpWaitingBytesBound(10'000);
    auto waiting = std::async(std::launch::async,
                              [large = post(stalled.url("/"), Data(20'000, 'x'))] { return errorOf(large); });
    EXPECT_TRUE(stalled.waitForRequests(2));
    const HttpRequest small = post(other.url("/"), Data(1'000, 'x'));
    startDataTask(small, nullptr);
    EXPECT_TRUE(other.waitForRequests(1));
    EXPECT_EQ(errorOf(small), "no error");
    stalled.open();
    EXPECT_EQ(waiting.get(), "no error");
}

}  // namespace
}  // namespace quorvane::platform

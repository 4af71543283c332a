#include "platform/HttpSession.h"
#include "platform/Text.h"
#include "platform/UniqueDescriptor.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HttpsServer.h"
#include "tests/support/RootFixture.h"
#include "tests/support/TestCertificate.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <set>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;
using test::HttpsServer;
using test::ServerAnswer;
using test::ServerRequest;

Data bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

/// A server that answers every connection on 127.0.0.1 with the same bytes, whatever it is asked, and then
/// closes it, or goes on sending the bytes without an end.
class RawServer {
  public:
    explicit RawServer(std::string answer, bool endless = false) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        _listener = UniqueDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ::bind(_listener.get(), reinterpret_cast<sockaddr*>(&address), size);
        ::listen(_listener.get(), 8);
        ::getsockname(_listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
        _port = ntohs(address.sin_port);
        _thread = std::thread([this, answer = std::move(answer), endless] { serve(answer, endless); });
    }

    ~RawServer() {
        ::shutdown(_listener.get(), SHUT_RDWR);
        _thread.join();
    }

    std::string url() const { return fmt::format("http://127.0.0.1:{}/", _port); }

  private:
    void serve(const std::string& answer, bool endless) const {
        while (true) {
            const UniqueDescriptor client(::accept(_listener.get(), nullptr, nullptr));
            if (!client) return;
            char request[4096];
            if (::recv(client.get(), request, sizeof request, 0) <= 0) continue;
            while (::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL) > 0 && endless) continue;
        }
    }

    UniqueDescriptor _listener;
    int _port = 0;
    std::thread _thread;
};

class HttpSessionTest : public RootFixture {
  protected:
    /// The session reads the root's name once, on first use, so all tests here share one.
    static void SetUpTestSuite() {
        std::string pattern = "/tmp/quorvane-http-XXXXXX";
        shared = ::mkdtemp(pattern.data());
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(shared); }

    void SetUp() override {
        RootFixture::SetUp();
        std::filesystem::remove_all(_root);
        _root = shared;
        std::filesystem::create_directories(_root);
        ::setenv("QUORVANE_ROOT", _root.c_str(), 1);
    }

    static std::string errorOf(const std::string& url) {
        HttpRequest request;
        request.url = url;
        return performDataTask(std::move(request)).error.value_or("no error");
    }

  private:
    static inline std::filesystem::path shared;
};

TEST_F(HttpSessionTest, SendsWhatItIsGivenAndReturnsWhatItGets) {
    HttpsServer server(_root);
    server.answerWith({404, {{"X-Twice", "1"}, {"x-twice", "2"}}, "not here"});
    HttpRequest request;
    request.url = server.url("/path?q=1");
    request.method = "PUT";
    request.headers = {{"X-Text", "a: b"}, {"Content-Type", "text/plain"}};
    request.body = bytes(std::string_view("a\0b", 3));
    const HttpResult result = performDataTask(request);

    ASSERT_TRUE(result.response) << *result.error;
    EXPECT_EQ(result.response->statusCode, 404);
    EXPECT_EQ(result.response->body, bytes("not here"));
    ASSERT_NE(result.response->header("X-TWICE"), nullptr);
    EXPECT_EQ(result.response->header("X-Absent"), nullptr);
    EXPECT_FALSE(result.error);
    const ServerRequest got = server.requests().at(0);
    EXPECT_EQ(got.method, "PUT");
    EXPECT_EQ(got.target, "/path?q=1");
    EXPECT_EQ(got.header("X-Text"), "a: b");
    EXPECT_EQ(got.header("Content-Type"), "text/plain");
    EXPECT_EQ(got.header("Content-Length"), "3");
    EXPECT_EQ(got.body, std::string("a\0b", 3));
}

TEST_F(HttpSessionTest, AddsNothingToABodyThatTheCallerDidNotAskFor) {
    HttpsServer server(_root);
    HttpRequest request;
    request.url = server.url("/");
    request.method = "POST";
    request.body = Data(2u << 20, 'x');
    ASSERT_TRUE(performDataTask(request).response);
    request.body.clear();
    ASSERT_TRUE(performDataTask(request).response);
    EXPECT_EQ(server.requests().at(0).header("Expect"), "absent");
    EXPECT_EQ(server.requests().at(0).header("Content-Type"), "absent");
    EXPECT_EQ(server.requests().at(0).body.size(), 2u << 20);
    EXPECT_EQ(server.requests().at(1).header("Content-Length"), "0");
}

TEST_F(HttpSessionTest, WhatWouldBreakTheRequestApartIsNeverSent) {
    HttpsServer server(_root);
    for (const std::string& value :
         {std::string("a\r\nX-Evil: 1"), std::string("a\nb"), std::string("a\0b", 3)}) {
        HttpRequest request;
        request.url = server.url("/");
        request.headers = {{"X-Text", value}};
        EXPECT_TRUE(performDataTask(request).error) << value;
        request.headers = {{"X" + value, "1"}};
        EXPECT_TRUE(performDataTask(request).error) << value;
        request.headers = {};
        request.method = "GET" + value;
        EXPECT_TRUE(performDataTask(request).error) << value;
        request.method = "GET";
        request.url += value;
        EXPECT_TRUE(performDataTask(request).error) << value;
    }
    for (const char* url : {"", "nothing", "file:///etc/passwd", "ftp://127.0.0.1/", "https://"})
        EXPECT_NE(errorOf(url), "no error") << url;
    EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(HttpSessionTest, TrustsTheConfiguredCertificatesAndNoOther) {
    write("etc/quorvane/trust/damaged.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    write("etc/quorvane/trust/empty.pem", "");
    HttpsServer trusted(_root);
    HttpsServer stranger;
    EXPECT_EQ(errorOf(trusted.url("/")), "no error");
    EXPECT_GE(logged("<4>HttpSession: " + (_root / "etc/quorvane/trust/damaged.pem").string()), 1u);
    EXPECT_GE(logged("empty.pem holds no readable certificates"), 1u);
    EXPECT_TRUE(containsIgnoringCase(errorOf(stranger.url("/")), "certificate"));
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

/// A port that was free a moment ago.
int freePort() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const UniqueDescriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ::bind(probe.get(), reinterpret_cast<sockaddr*>(&address), size);
    ::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

TEST_F(HttpSessionTest, PostsOverOneConnectionWhereTheServerOffersHttp2) {
    const test::TestCertificate certificate = test::makeTestCertificate();
    test::trustCertificate(certificate, _root, "http2");
    write("certificate.pem", certificate.certificate);
    write("key.pem", certificate.key);
    const int port = freePort();
    const auto server = test::ChildProcess::start(
        {QUORVANE_NGHTTPD, "--address=127.0.0.1", "--echo-upload", "--verbose", std::to_string(port),
         (_root / "key.pem").string(), (_root / "certificate.pem").string()});
    ASSERT_NE(server, nullptr);
    ASSERT_TRUE(server->waitForOutput("listen 127.0.0.1"));

    std::atomic<int> echoed = 0;
    for (int i = 0; i < 20; ++i) {
        HttpRequest request;
        request.url = fmt::format("https://127.0.0.1:{}/events", port);
        request.method = "POST";
        request.headers = {{"X-QVN-Sender", "ABC"}};
        request.body = bytes("body " + std::to_string(i));
        const Data sent = request.body;
        startDataTask(std::move(request), [&echoed, sent](const HttpResult& result) {
            echoed += result.response && result.response->body == sent;
        });
    }
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(echoed, 20);
    EXPECT_TRUE(server->waitForOutput("x-qvn-sender: ABC"));
    EXPECT_EQ(server->output().find("[id=2]"), std::string::npos) << "a second connection";
}

TEST_F(HttpSessionTest, ServersThatAnswerNoHttpAreErrors) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n";
    for (const std::string& answer : {std::string(), std::string("\xff\x00garbage\n", 10), head + "half"})
        EXPECT_NE(errorOf(RawServer(answer).url()), "no error") << escapedControls(answer, "");
    const RawServer gone("");
    EXPECT_NE(errorOf("http://127.0.0.1:1/"), "no error");
}

TEST_F(HttpSessionTest, EndlessAnswersAreCutAtTheBound) {
    const RawServer body("HTTP/1.1 200 OK\r\n\r\n" + std::string(65536, 'x'), true);
    EXPECT_EQ(errorOf(body.url()), "the answer is larger than 16777216 bytes");
    const RawServer headers("HTTP/1.1 200 OK\r\nX-Many: " + std::string(1000, 'x') + "\r\n", true);
    EXPECT_NE(errorOf(headers.url()), "no error");

    HttpsServer server(_root);
    server.answerWith({200, {}, "12345"});
    HttpRequest request;
    request.url = server.url("/");
    request.maximumResponseBytes = 5;
    EXPECT_TRUE(performDataTask(request).response);
    request.maximumResponseBytes = 4;
    EXPECT_EQ(performDataTask(request).error, "the answer is larger than 4 bytes");
}

/// Holds every request until it is opened.
class Gate {
  public:
    void open() {
        const std::lock_guard lock(_mutex);
        _open = true;
        _changed.notify_all();
    }
    ServerAnswer pass(const ServerRequest&) {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [this] { return _open; });
        return {};
    }

  private:
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _open = false;
};

TEST_F(HttpSessionTest, ARequestEndsWhenItsTimeIsUp) {
    Gate gate;
    HttpsServer server(_root);
    server.setHandler([&](const ServerRequest& request) { return gate.pass(request); });
    HttpRequest request;
    request.url = server.url("/");
    request.timeout = 1s;
    EXPECT_TRUE(performDataTask(request).error);
    gate.open();
}

TEST_F(HttpSessionTest, SendersWaitWhileTheServerStallsAndNothingIsLost) {
    Gate gate;
    HttpsServer stalled(_root);
    HttpsServer other(_root);
    stalled.setHandler([&](const ServerRequest& request) { return gate.pass(request); });
    setHttpWaitingBytesBound(10 * (1000 + 1024));
    std::atomic<int> started = 0;
    std::atomic<int> answered = 0;
    std::thread sender([&] {
        for (int i = 0; i < 40; ++i) {
            HttpRequest request;
            request.url = stalled.url("/");
            request.method = "POST";
            request.body = Data(1000, 'x');
            startDataTask(std::move(request),
                          [&](const HttpResult& result) { answered += !!result.response; });
            ++started;
        }
    });
    while (started < 10) std::this_thread::yield();
    // A stalled server holds up its own senders, and only where a body has to wait.
    EXPECT_EQ(errorOf(other.url("/")), "no error");
    EXPECT_FALSE(drainHttpSession(50ms));
    EXPECT_EQ(started, 10);
    gate.open();
    sender.join();
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(answered, 40);
    EXPECT_EQ(stalled.requestCount(), 40u);

    HttpRequest large;
    large.url = other.url("/");
    large.method = "POST";
    large.body = Data(20'000, 'x');
    startDataTask(std::move(large), [&](const HttpResult& result) { answered += !!result.response; });
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(answered, 41);
    setHttpWaitingBytesBound(16u << 20);
}

TEST_F(HttpSessionTest, ALargeBodyOfAWaitingCallerHoldsUpNobodyElse) {
    Gate gate;
    HttpsServer stalled(_root);
    HttpsServer other(_root);
    stalled.setHandler([&](const ServerRequest& request) { return gate.pass(request); });
    setHttpWaitingBytesBound(10'000);
    HttpRequest large;
    large.url = stalled.url("/");
    large.method = "POST";
    large.body = Data(20'000, 'x');
    HttpRequest small = large;
    small.url = other.url("/");
    small.body.resize(1'000);
    auto waiting = std::async(std::launch::async, [&] { return performDataTask(large); });
    EXPECT_TRUE(stalled.waitForRequests(1));
    startDataTask(small, nullptr);
    EXPECT_TRUE(other.waitForRequests(1));
    EXPECT_TRUE(performDataTask(small).response);
    gate.open();
    EXPECT_TRUE(waiting.get().response);
    setHttpWaitingBytesBound(16u << 20);
}

}  // namespace
}  // namespace quorvane::platform

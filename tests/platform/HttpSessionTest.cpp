#include "platform/http/HttpSession.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HttpsServer.h"
#include "tests/support/RawServer.h"
#include "tests/support/RootFixture.h"
#include "tests/support/StalledServer.h"
#include "tests/support/TestCertificate.h"
#include "tests/support/Within.h"

#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;
using test::HttpsServer;
using test::LocalSocket;
using test::RawConnection;
using test::RawServer;
using test::ServerAnswer;
using test::ServerRequest;
using test::StalledServer;
using testing::AnyOf;
using testing::HasSubstr;

Data bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

class HttpSessionTest : public RootFixture {
  protected:
    ~HttpSessionTest() override { setHttpLimits({}); }

    static HttpRequest get(std::string url, std::vector<HttpHeader> headers = {}) {
        return {std::move(url), "GET", std::move(headers), {}};
    }
    static HttpRequest post(std::string url, Data body) {
        return {std::move(url), "POST", {}, std::move(body)};
    }
    /// A post that wants its answer's head only.
    static HttpRequest eventFor(std::string url) {
        HttpRequest request = post(std::move(url), bytes("event"));
        request.wantsBody = false;
        return request;
    }
    static HttpResult resultOfStarted(HttpRequest request) {
        std::promise<HttpResult> promised;
        startDataTask(std::move(request), [&](HttpResult got) { promised.set_value(std::move(got)); });
        return promised.get_future().get();
    }
    static std::string errorOf(HttpRequest request) {
        return performDataTask(std::move(request)).error.value_or("no error");
    }
    /// The sum of the numbers in the lines about what is dropped.
    static std::uint64_t droppedInLog() {
        std::uint64_t sum = 0;
        constexpr std::string_view before = "takes too little: dropped ";
        for (const std::string& line : logLines())
            if (const auto at = line.find(before); at != std::string::npos)
                sum += std::stoul(line.substr(at + before.size()));
        return sum;
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

TEST_F(HttpSessionTest, TrustsTheConfiguredCertificatesKeepsConnectionsAliveAndFollowsNoRedirect) {
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

    trusted.answerWith({302, {{"Location", trusted.url("/elsewhere")}}, ""});
    for (int i = 0; i < 4; ++i) EXPECT_EQ(errorOf(trusted.url("/")), "no error");
    std::set<int> ports;
    for (const ServerRequest& request : trusted.requests()) {
        EXPECT_EQ(request.target, "/");
        ports.insert(request.clientPort);
    }
    EXPECT_EQ(trusted.requestCount(), 5u);
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

TEST_F(HttpSessionTest, ServersThatAnswerNoHttpAreErrorsAndReceivedHeadersHoldNoLineBreaks) {
    const RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nLast-Modified: Mon\rday\r\n\r\n");
    EXPECT_EQ(performDataTask(get(server.url())).response.header("Last-Modified"), "Mon day");
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

TEST_F(HttpSessionTest, SendersWaitForAServerThatIsSlowAndNothingIsLost) {
    StalledServer stalled(_root);
    setHttpLimits({.bytesPerServer = 10 * 2100});
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
    EXPECT_FALSE(drainHttpSession(50ms));
    EXPECT_EQ(started, 10);
    stalled.open();
    sender.join();
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(answered, 40);
    EXPECT_EQ(stalled.requestCount(), 40u);

    startDataTask(post(stalled.url("/"), Data(30'000, 'x')), count);
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ(answered, 41) << "a body above the bound goes when nothing waits";
}

TEST_F(HttpSessionTest, ServersThatTakeNothingCostOthersNothingAndWhatIsTooMuchIsDroppedAndCounted) {
    HttpsServer healthy(_root);
    const auto silent = [](RawConnection& connection) { connection.waitForClose(); };
    std::vector<std::unique_ptr<RawServer>> stalled;
    for (int i = 0; i < 3; ++i) stalled.push_back(std::make_unique<RawServer>(silent));
    setHttpLimits({.bytesPerServer = 50'000,
                   .bytesInAll = 60'000,
                   .bytesGuaranteed = 20'000,
                   .senderPatience = 20ms,
                   .waitingTime = 1s,
                   .postTime = 1s});
    const std::uint64_t droppedBefore = droppedDataTasks();
    std::atomic<std::uint64_t> dropped = 0;
    std::atomic<int> answered = 0;
    const auto count = [&](const HttpResult& result) {
        dropped += result.wasDropped;
        answered += !result.error;
    };
    for (int i = 0; i < 60; ++i)
        for (const auto& server : stalled) startDataTask(post(server->url(), Data(1000, 'x')), count);
    EXPECT_GT(dropped, 0u);
    for (int i = 0; i < 20; ++i) {
        startDataTask(post(healthy.url("/"), Data(5000, 'x')), count);
        EXPECT_TRUE(test::within(10s, [&] { return answered == i + 1; })) << i;
    }
    EXPECT_TRUE(drainHttpSession(30s)) << "what waits is bounded in time, too";
    EXPECT_EQ(answered, 20);
    EXPECT_EQ(droppedDataTasks() - droppedBefore, dropped);
    EXPECT_TRUE(test::within(20s, [&] { return droppedInLog() == dropped; })) << droppedInLog();
    EXPECT_LT(logged("takes too little"), 20u);
}

TEST_F(HttpSessionTest, ABodyIsSentOnceWhateverBecomesOfItsConnection) {
    std::atomic<int> received = 0;
    const RawServer server([&](RawConnection& connection) {
        for (int i = 0; !connection.readRequest().empty(); ++i) {
            ++received;
            if (i == 1) return;
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
        }
    });
    for (const Data& body : {bytes("event"), Data()}) {
        received = 0;
        EXPECT_EQ(errorOf(HttpRequest{server.url(), "GET", {}, {}}), "no error");
        EXPECT_EQ(resultOfStarted(post(server.url(), body)).error.has_value(), !body.empty());
        EXPECT_EQ(received, 2);
    }
}

TEST_F(HttpSessionTest, WhoWantsNoBodyHasItsAnswerWithTheHeadWhichEndsWithThePostsTime) {
    setHttpLimits({.unwantedBodyTime = 200ms});
    std::atomic<int> closed = 0;
    const auto answering = [&](const char* head, std::size_t piece) {
        return [&, head, piece](RawConnection& connection) {
            connection.readRequest();
            connection.send(head);
            while (connection.send(std::string(piece, 'x')))
                if (piece < 100) std::this_thread::sleep_for(10ms);
            ++closed;
        };
    };
    const RawServer drip(answering("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 503 Busy\r\n\r\n", 1));
    const RawServer endless(answering("HTTP/1.1 503 Busy\r\n\r\n", 65536));
    for (const RawServer* server : {&drip, &endless}) {
        const HttpResult result = resultOfStarted(eventFor(server->url()));
        EXPECT_EQ(result.error, std::nullopt);
        EXPECT_EQ(result.response.statusCode, 503);
        EXPECT_TRUE(result.response.body.empty());
    }
    EXPECT_TRUE(test::within(20s, [&] { return closed == 2; }));

    // A head that drips is no answer.
    setHttpLimits({.postTime = 300ms});
    const RawServer head(answering("HTTP/1.1 200 OK\r\nX-Drip: ", 1));
    EXPECT_THAT(resultOfStarted(post(head.url(), bytes("event"))).error.value_or(""), HasSubstr("timed out"));

    setHttpLimits({});
    HttpsServer server(_root);
    server.answerWith({200, {}, std::string(10'000, 'x')});
    for (std::size_t i = 1; i <= 3; ++i) {
        startDataTask(eventFor(server.url("/")), nullptr);
        EXPECT_TRUE(drainHttpSession(30s));
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(server.requests().at(2).clientPort, server.requests().at(0).clientPort);
}

TEST_F(HttpSessionTest, PostsOfOneKeyStartInTheirOrder) {
    std::mutex mutex;
    std::vector<std::string> received;
    HttpsServer server(_root);
    std::promise<void> gate;
    server.setHandler([&, opened = gate.get_future().share()](const ServerRequest& request) {
        {
            const std::scoped_lock lock(mutex);
            received.push_back(request.body);
        }
        if (request.body == "barrier") opened.wait();
        return ServerAnswer();
    });
    const auto send = [&](std::string_view body, bool isBarrier = false) {
        HttpRequest request = post(server.url("/"), bytes(body));
        request.orderKey = &server;
        request.isBarrier = isBarrier;
        startDataTask(std::move(request), nullptr);
    };
    setHttpLimits({.orderSpacing = 1h});
    std::vector<std::string> sent;
    for (int i = 0; i < 200; ++i) send(sent.emplace_back(std::to_string(i)));
    EXPECT_TRUE(drainHttpSession(30s));
    EXPECT_EQ((std::scoped_lock(mutex), received), sent);

    // What was sent a moment ago lets the next one go, unless that has to wait for its answer.
    setHttpLimits({.orderSpacing = 0ms});
    server.forgetRequests();
    send("barrier");
    send("barrier", true);
    send("last");
    EXPECT_TRUE(server.waitForRequests(2));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(server.requestCount(), 2u);
    startDataTask(post(server.url("/"), bytes("other")), nullptr);
    EXPECT_TRUE(server.waitForRequests(3)) << "others go past it";
    gate.set_value();
    EXPECT_TRUE(server.waitForRequests(4));
    EXPECT_EQ(server.requests().at(3).body, "last");
    EXPECT_TRUE(drainHttpSession(30s));
}

TEST_F(HttpSessionTest, PostsAndWhatThreadsWaitForDoNotQueueBehindEachOther) {
    StalledServer server(_root);
    const HttpRequest awaited{server.url("/"), "PUT", {}, bytes("file")};
    std::vector<std::future<std::string>> uploads;
    for (int i = 0; i < 10; ++i)
        uploads.push_back(std::async(std::launch::async, [&] { return errorOf(awaited); }));
    EXPECT_TRUE(server.waitForRequests(10));
    for (int i = 0; i < 20; ++i) startDataTask(post(server.url("/"), bytes("event")), nullptr);
    EXPECT_TRUE(server.waitForRequests(18)) << "posts have places of their own";
    uploads.push_back(std::async(std::launch::async, [&] { return errorOf(awaited); }));
    EXPECT_TRUE(server.waitForRequests(19)) << "an upload takes none of them";
    EXPECT_EQ(server.requestCount(), 19u);
    server.open();
    for (auto& upload : uploads) EXPECT_EQ(upload.get(), "no error");
    EXPECT_TRUE(drainHttpSession(30s));
}

TEST_F(HttpSessionTest, WhatIsWaitedForMayTakeLongToAnswerButNotToSend) {
    setHttpLimits({.standstill = 200ms});
    const Data large(32u << 20, 'x');
    const RawServer deaf([](RawConnection&) { std::this_thread::sleep_for(2s); });
    EXPECT_THAT(errorOf(post(deaf.url(), large)), HasSubstr("timed out"));

    const RawServer thinks([](RawConnection& connection) {
        connection.readRequest();
        std::this_thread::sleep_for(1s);
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    EXPECT_EQ(errorOf(post(thinks.url(), large)), "no error");
    setHttpLimits({.answerTime = 100ms});
    EXPECT_THAT(errorOf(post(thinks.url(), large)), HasSubstr("timed out"));
    EXPECT_THAT(errorOf(RawServer([](RawConnection& connection) { connection.waitForClose(); }).url()),
                HasSubstr("timed out"));
}

}  // namespace
}  // namespace quorvane::platform

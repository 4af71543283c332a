#include "platform/http/HttpSession.h"
#include "tests/backends/BackendFixture.h"
#include "tests/support/RawServer.h"
#include "tests/support/Within.h"

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

namespace quorvane {
namespace {

class JSONPostingTest : public PostingFixture {
  protected:
    std::shared_ptr<HTTPSPostBackend> postingBackend() {
        return enabledBackend({{"post_url", _server->url("/post")}});
    }

    /// What was posted since the last call, once every started post has completed.
    std::vector<test::ServerRequest> takeRequests() {
        EXPECT_TRUE(platform::drainHttpSession(std::chrono::seconds(30)));
        auto requests = _server->requests();
        _server->forgetRequests();
        return requests;
    }

    test::ServerRequest takeOnlyRequest() {
        auto requests = takeRequests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? test::ServerRequest() : requests[0];
    }

    static std::string clientIn(const std::string& json) {
        return *platform::parseJson(json)->dictionary()->string("clientId");
    }
};

TEST_F(JSONPostingTest, PostsTheEnvelopeWithItsHeaders) {
    auto backend = postingBackend();
    backend->setCompType(7);
    backend->setIsInternal(true);
    backend->setUserInfoDict(userInfo("Mail\r\nX-Forged: 1", "Sync"));
    const auto answer = send(*backend, {{"n", 1}}, 12, 3);

    const test::ServerRequest request = takeOnlyRequest();
    EXPECT_EQ(request.target, "/post");
    EXPECT_EQ(request.header("X-QVN-Client-Name"), "Mail  X-Forged: 1");
    EXPECT_EQ(request.header("X-Forged"), "absent");
    EXPECT_EQ(request.header("X-QVN-Service-Name"), "Sync");
    EXPECT_EQ(request.header("X-QVN-Internal-Build"), "1");
    EXPECT_EQ(request.header("X-QVN-Sender"), "CFX");
    EXPECT_EQ(request.header("X-QVN-Event-Map"), "12 3");
    EXPECT_EQ(request.header("Accept"), "application/json");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.headerValues("Content-Length").size(), 1u);

    const auto posted = platform::parseJson(request.body);
    ASSERT_TRUE(posted);
    EXPECT_EQ(posted, platform::parseJson(answer.value_or("")));
    EXPECT_EQ(posted->dictionary()->description().find("{clientId = "), 0u);
    EXPECT_GT(posted->dictionary()->find("postTime")->real(), 1.7e9);
}

TEST_F(JSONPostingTest, LeavesOutTheHeadersThatHaveNothingToSay) {
    auto backend = postingBackend();
    backend->setBatchEvents(true);
    backend->setUserInfoDict(shared({{"ClientName", 7}}));
    send(*backend, {});
    EXPECT_TRUE(backend->flushMessages());
    const test::ServerRequest request = takeOnlyRequest();
    for (const char* name :
         {"X-QVN-Client-Name", "X-QVN-Service-Name", "X-QVN-Internal-Build", "X-QVN-Event-Map"})
        EXPECT_EQ(request.header(name), "absent") << name;
}

TEST_F(JSONPostingTest, CompressesOnlyWhatGetsShorter) {
    auto backend = postingBackend();
    send(*backend, {{"text", std::string(2'000, 'x')}});
    test::ServerRequest request = takeOnlyRequest();
    EXPECT_EQ(request.header("Content-Encoding"), "gzip");
    EXPECT_LT(std::stoi(request.header("Content-Length")), 1'000);
    EXPECT_EQ(eventsIn(request.body).size(), 1u) << "any gzip reader expands it";

    // Without events the message is too short to gain.
    backend = enabledBackend({{"extras_on_internal", 1}, {"post_url", _server->url("/post")}});
    backend->setIsInternal(true);
    send(*backend, {});
    request = takeOnlyRequest();
    EXPECT_EQ(request.header("Content-Encoding"), "absent");
    EXPECT_EQ(request.header("Content-Length"), fmt::format("{}", request.body.size()));
    EXPECT_TRUE(platform::parseJson(request.body));
}

TEST_F(JSONPostingTest, AServerErrorDisablesUntilTheStateIsWorkedOutAnew) {
    auto backend = postingBackend();
    for (const int status : {200, 404, 499, 500, 599, 600}) {
        SCOPED_TRACE(status);
        const bool disables = status == 500 || status == 599;
        backend->updateState();
        _server->answerWith({status, {}, {}});
        send(*backend, {});
        EXPECT_EQ(takeRequests().size(), 1u);
        EXPECT_EQ(backend->state(), disables ? BackendState::Disabled : BackendState::Enabled);
        EXPECT_EQ(logged(fmt::format("<6>postJSONMessage: backend httppost disabled by server {} return code",
                                     status)),
                  disables ? 1u : 0u);
    }
    const test::RawServer cutShort("HTTP/1.1 503 Busy\r\nContent-Length: 100\r\n\r\nhalf");
    backend = enabledBackend({{"post_url", cutShort.url()}});
    send(*backend, {});
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(backend->state(), BackendState::Disabled);
    EXPECT_EQ(logged("post error"), 0u) << "the head is the answer";
}

TEST_F(JSONPostingTest, AForcedFlushIsAnsweredBeforeTheEventBehindItIsSent) {
    auto backend = postingBackend();
    std::atomic<int> answered = 0, answeredBeforeEvent = -1;
    _server->setHandler([&](const test::ServerRequest& request) {
        if (eventsIn(request.body).size() == 1) answeredBeforeEvent = answered.load();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ++answered;
        return test::ServerAnswer();
    });
    backend->setState(BackendState::SampledOut);
    for (const int n : {1, 2}) EXPECT_FALSE(send(*backend, {{"n", n}}));
    EXPECT_TRUE(send(*backend, {{"n", 3}}, 5, 0, 2));
    EXPECT_EQ(takeRequests().size(), 2u);
    EXPECT_EQ(answeredBeforeEvent, 1);
}

TEST_F(JSONPostingTest, ANumberThatIsNotFiniteCostsItsMessageWithAnError) {
    auto backend = postingBackend();
    for (const double number :
         {std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()})
        EXPECT_FALSE(send(*backend, {{"number", number}}));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(logged("<3>HTTPSPostBackend(createMessageForPostAndLogging): Dropping 1 events"), 2u);
    send(*backend, {{"number", 1.5}});
    EXPECT_EQ(takeRequests().size(), 1u);
}

TEST_F(JSONPostingTest, AFailedPostIsLoggedAndOutlivesItsBackend) {
    auto backend = enabledBackend({{"post_url", "https://127.0.0.1:1/"}});
    send(*backend, {});
    const std::weak_ptr<HTTPSPostBackend> held = std::exchange(backend, nullptr);
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(logged("<3>HTTPSPostBackend(postJsonMessage): post error: "), 1u);
    EXPECT_TRUE(test::within(std::chrono::seconds(10), [&] { return held.expired(); }));
}

TEST_F(JSONPostingTest, NothingGoesToAUrlWithoutAScheme) {
    const test::RawServer clear("HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n");
    const std::string bare = clear.url().substr(sizeof "http://" - 1);
    auto backend = enabledBackend({{"post_url", bare}, {"realtime_post_url", _server->url("/now")}});
    EXPECT_EQ(logged("<3>HTTPSPostBackend(updateBackendState): 'post_url' holds no URL with a scheme"), 1u);
    send(*backend, {{"n", 1}});
    send(*backend, {{"n", 2}}, 5, 0, 1);
    EXPECT_EQ(takeOnlyRequest().target, "/now");
    EXPECT_EQ(backend->state(), BackendState::Enabled) << "the server without TLS was not asked";

    write("etc/quorvane/defaults/com.velmora.quorvane.toml", "httpsRealtimePostURL = \"" + bare + "\"\n");
    backend = enabledBackend();
    EXPECT_EQ(logged("<3>HTTPSPostBackend(updateBackendState): 'httpsRealtimePostURL' holds no URL"), 1u);
    send(*backend, {}, 5, 0, 1);
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(backend->state(), BackendState::Enabled);
    EXPECT_EQ(logged("post error"), 0u);
}

TEST_F(JSONPostingTest, TellsThePrettyTextOnlyWithPlainConsent) {
    std::vector<std::string> clients;
    for (const auto& [consents, override, answers, opt] :
         {std::tuple(true, 0, true, 0), {true, 1, false, 2}, {false, 1, false, 1}}) {
        SCOPED_TRACE(fmt::format("consent {}, override {}", consents, override));
        write("etc/quorvane/consent.toml", fmt::format("diagnostics_submission = {}\n", consents));
        Dictionary entry = entryWith("post_url", _server->url("/post"));
        entry.set("override_dnu", override);
        auto backend = personalBackend(entry);
        EXPECT_EQ(send(*backend, {}, 0, 1).has_value(), answers);
        const std::string body = takeOnlyRequest().body;
        EXPECT_EQ(onlyEventIn(body).integer("Opt"), opt);
        clients.push_back(clientIn(body));
    }
    auto withoutUserInfo = postingBackend();
    EXPECT_FALSE(send(*withoutUserInfo, {}));
    const std::string body = takeOnlyRequest().body;
    onlyEventIn(body);
    EXPECT_THAT(clients, testing::Each(clients[0])) << "the device's own";
    EXPECT_NE(clientIn(body), clients[0]) << "consent is respected";
}

}  // namespace
}  // namespace quorvane

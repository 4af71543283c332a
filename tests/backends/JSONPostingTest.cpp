#include "platform/HttpSession.h"
#include "tests/backends/BackendFixture.h"
#include "tests/support/HttpsServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>

namespace quorvane {
namespace {

class JSONPostingTest : public BackendFixture {
  protected:
    void SetUp() override {
        BackendFixture::SetUp();
        _server = std::make_unique<test::HttpsServer>(_root);
    }

    std::shared_ptr<HTTPSPostBackend> postingBackend() {
        return enabledBackend(
            {{"post_url", _server->url("/post")}, {"realtime_post_url", _server->url("/realtime")}});
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

    std::unique_ptr<test::HttpsServer> _server;
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
    backend->setUserInfoDict(std::make_shared<const Dictionary>(Dictionary{{"ClientName", 7}}));
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
    Dictionary internal{{"extras_on_internal", 1}, {"post_url", _server->url("/post")}};
    backend = enabledBackend(internal);
    backend->setIsInternal(true);
    send(*backend, {});
    request = takeOnlyRequest();
    EXPECT_EQ(request.header("Content-Encoding"), "absent");
    EXPECT_EQ(request.header("Content-Length"), fmt::format("{}", request.body.size()));
    EXPECT_TRUE(platform::parseJson(request.body));
}

TEST_F(JSONPostingTest, TheFlagPicksTheUrl) {
    auto backend = postingBackend();
    for (const auto& [flag, path] :
         {std::pair{0u, "/post"}, {1u, "/realtime"}, {2u, "/post"}, {3u, "/realtime"}}) {
        send(*backend, {}, 5, 0, flag);
        EXPECT_EQ(takeOnlyRequest().target, path) << flag;
    }
}

TEST_F(JSONPostingTest, AServerErrorDisablesUntilTheStateIsWorkedOutAnew) {
    auto backend = postingBackend();
    for (const int status : {200, 404, 499, 600}) {
        _server->answerWith({status, {}, {}});
        send(*backend, {});
        EXPECT_EQ(takeRequests().size(), 1u);
        EXPECT_EQ(backend->state(), BackendState::Enabled) << status;
    }
    for (const int status : {500, 599}) {
        _server->answerWith({status, {}, {}});
        send(*backend, {});
        EXPECT_EQ(takeRequests().size(), 1u);
        EXPECT_EQ(backend->state(), BackendState::Disabled) << status;
        EXPECT_EQ(logged(fmt::format("<6>postJSONMessage: backend httppost disabled by server {} return code",
                                     status)),
                  1u);
        backend->updateState();
        EXPECT_EQ(backend->state(), BackendState::Enabled);
    }
    EXPECT_EQ(logged("post error"), 0u);
}

TEST_F(JSONPostingTest, AFailedPostIsLoggedAndOutlivesItsBackend) {
    auto backend = enabledBackend({{"post_url", "https://127.0.0.1:1/"}});
    send(*backend, {});
    const std::weak_ptr<HTTPSPostBackend> held = std::exchange(backend, nullptr);
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(logged("<3>HTTPSPostBackend(postJsonMessage): post error: "), 1u);
    for (int waits = 0; !held.expired() && waits < 1'000; ++waits)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(held.expired());
}

TEST_F(JSONPostingTest, TellsThePrettyTextOnlyWithPlainConsent) {
    const auto sentBy = [&](int override) {
        Dictionary entry = permissiveEntry();
        entry.set("post_url", _server->url("/post"));
        entry.set("override_dnu", override);
        auto backend = backendWithClients({Value(entry)});
        backend->setRequireUserInfo(true);
        backend->setUserInfoDict(userInfo());
        backend->updateState();
        const auto answer = send(*backend, {}, 0, 1);
        const std::string body = takeOnlyRequest().body;
        const Array events = eventsIn(body);
        const auto opt = events.empty() ? -1 : events[0].dictionary()->integer("Opt");
        const std::string client = *platform::parseJson(body)->dictionary()->string("clientId");
        return std::tuple(answer.has_value(), opt, client);
    };
    const auto [plainAnswer, plainOpt, plainClient] = sentBy(0);
    const auto [overriddenAnswer, overriddenOpt, overriddenClient] = sentBy(1);
    EXPECT_TRUE(plainAnswer);
    EXPECT_EQ(plainOpt, 0);
    EXPECT_FALSE(overriddenAnswer);
    EXPECT_EQ(overriddenOpt, 2);

    write("etc/quorvane/consent.toml", "diagnostics_submission = false\n");
    const auto [answer, opt, client] = sentBy(1);
    EXPECT_FALSE(answer);
    EXPECT_EQ(opt, 1);
    EXPECT_EQ(client, overriddenClient);

    auto withoutUserInfo = postingBackend();
    EXPECT_FALSE(send(*withoutUserInfo, {}));
    EXPECT_EQ(eventsIn(takeOnlyRequest().body).size(), 1u);
}

TEST_F(JSONPostingTest, PostsInOrderWhenHeldRecordsGoOutFirst) {
    auto backend = postingBackend();
    backend->setState(BackendState::SampledOut);
    send(*backend, {{"n", 1}});
    backend->setState(BackendState::Enabled);
    send(*backend, {{"n", 2}});
    std::multiset<std::int64_t> posted;
    for (const test::ServerRequest& request : takeRequests())
        for (const Value& event : eventsIn(request.body)) posted.insert(event.dictionary()->integer("n"));
    EXPECT_EQ(posted, (std::multiset<std::int64_t>{1, 2}));
}

}  // namespace
}  // namespace quorvane

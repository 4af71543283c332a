#include "platform/HttpSession.h"
#include "tests/backends/BackendFixture.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <set>
#include <thread>

namespace quorvane {
namespace {

/// Keeps what is posted to it and answers with one status.
class PostServer {
  public:
    PostServer() {
        _server.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
            const std::scoped_lock lock(_guard);
            _requests.push_back(request);
            response.status = _status;
        });
        _port = _server.bind_to_any_port("127.0.0.1");
        _thread = std::thread([this] { _server.listen_after_bind(); });
        while (!_server.is_running()) std::this_thread::yield();
    }

    ~PostServer() {
        _server.stop();
        _thread.join();
    }

    std::string url(const std::string& path) const {
        return fmt::format("http://127.0.0.1:{}{}", _port, path);
    }
    void answerWith(int status) { _status = status; }

    /// What was posted since the last call, once every started post has completed.
    std::vector<httplib::Request> requests() {
        EXPECT_TRUE(platform::drainHttpSession(std::chrono::seconds(30)));
        const std::scoped_lock lock(_guard);
        return std::exchange(_requests, {});
    }

  private:
    httplib::Server _server;
    std::mutex _guard;
    std::vector<httplib::Request> _requests;
    std::atomic<int> _status{200};
    int _port = 0;
    std::thread _thread;
};

class JSONPostingTest : public BackendFixture {
  protected:
    std::shared_ptr<HTTPSPostBackend> postingBackend() {
        return enabledBackend(
            {{"post_url", _server.url("/post")}, {"realtime_post_url", _server.url("/realtime")}});
    }

    httplib::Request onlyRequest() {
        auto requests = _server.requests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? httplib::Request() : requests[0];
    }

    static std::string header(const httplib::Request& request, const char* name) {
        return request.has_header(name) ? request.get_header_value(name) : "absent";
    }

    PostServer _server;
};

TEST_F(JSONPostingTest, PostsTheEnvelopeWithItsHeaders) {
    auto backend = postingBackend();
    backend->setCompType(7);
    backend->setIsInternal(true);
    backend->setUserInfoDict(userInfo("Mail\r\nX-Forged: 1", "Sync"));
    const auto answer = send(*backend, {{"n", 1}}, 12, 3);

    const httplib::Request request = onlyRequest();
    EXPECT_EQ(request.path, "/post");
    EXPECT_EQ(header(request, "X-QVN-Client-Name"), "Mail  X-Forged: 1");
    EXPECT_EQ(header(request, "X-Forged"), "absent");
    EXPECT_EQ(header(request, "X-QVN-Service-Name"), "Sync");
    EXPECT_EQ(header(request, "X-QVN-Internal-Build"), "1");
    EXPECT_EQ(header(request, "X-QVN-Sender"), "CFX");
    EXPECT_EQ(header(request, "X-QVN-Event-Map"), "12 3");
    EXPECT_EQ(header(request, "Accept"), "application/json");
    EXPECT_EQ(header(request, "Content-Type"), "application/json");
    EXPECT_EQ(request.get_header_value_count("Content-Length"), 1u);

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
    const httplib::Request request = onlyRequest();
    for (const char* name :
         {"X-QVN-Client-Name", "X-QVN-Service-Name", "X-QVN-Internal-Build", "X-QVN-Event-Map"})
        EXPECT_EQ(header(request, name), "absent") << name;
}

TEST_F(JSONPostingTest, CompressesOnlyWhatGetsShorter) {
    auto backend = postingBackend();
    send(*backend, {{"text", std::string(2'000, 'x')}});
    httplib::Request request = onlyRequest();
    EXPECT_EQ(header(request, "Content-Encoding"), "gzip");
    EXPECT_LT(std::stoi(header(request, "Content-Length")), 1'000);
    EXPECT_EQ(eventsIn(request.body).size(), 1u) << "any gzip reader expands it";

    // Without events the message is too short to gain.
    Dictionary internal{{"extras_on_internal", 1}, {"post_url", _server.url("/post")}};
    backend = enabledBackend(internal);
    backend->setIsInternal(true);
    send(*backend, {});
    request = onlyRequest();
    EXPECT_EQ(header(request, "Content-Encoding"), "absent");
    EXPECT_EQ(header(request, "Content-Length"), fmt::format("{}", request.body.size()));
    EXPECT_TRUE(platform::parseJson(request.body));
}

TEST_F(JSONPostingTest, TheFlagPicksTheUrl) {
    auto backend = postingBackend();
    for (const auto& [flag, path] :
         {std::pair{0u, "/post"}, {1u, "/realtime"}, {2u, "/post"}, {3u, "/realtime"}}) {
        send(*backend, {}, 5, 0, flag);
        EXPECT_EQ(onlyRequest().path, path) << flag;
    }
}

TEST_F(JSONPostingTest, AServerErrorDisablesUntilTheStateIsWorkedOutAnew) {
    auto backend = postingBackend();
    for (const int status : {200, 404, 499, 600}) {
        _server.answerWith(status);
        send(*backend, {});
        EXPECT_EQ(_server.requests().size(), 1u);
        EXPECT_EQ(backend->state(), BackendState::Enabled) << status;
    }
    for (const int status : {500, 599}) {
        _server.answerWith(status);
        send(*backend, {});
        EXPECT_EQ(_server.requests().size(), 1u);
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
    auto backend = enabledBackend({{"post_url", "http://127.0.0.1:1/"}});
    send(*backend, {});
    const std::weak_ptr<HTTPSPostBackend> held = std::exchange(backend, nullptr);
    EXPECT_TRUE(_server.requests().empty());
    EXPECT_EQ(logged("<3>HTTPSPostBackend(postJsonMessage): post error: "), 1u);
    for (int waits = 0; !held.expired() && waits < 1'000; ++waits)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(held.expired());
}

TEST_F(JSONPostingTest, TellsThePrettyTextOnlyWithPlainConsent) {
    const auto sentBy = [&](int override) {
        Dictionary entry = permissiveEntry();
        entry.set("post_url", _server.url("/post"));
        entry.set("override_dnu", override);
        auto backend = backendWithClients({Value(entry)});
        backend->setRequireUserInfo(true);
        backend->setUserInfoDict(userInfo());
        backend->updateState();
        const auto answer = send(*backend, {}, 0, 1);
        const std::string body = onlyRequest().body;
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
    EXPECT_EQ(eventsIn(onlyRequest().body).size(), 1u);
}

TEST_F(JSONPostingTest, PostsInOrderWhenHeldRecordsGoOutFirst) {
    auto backend = postingBackend();
    backend->setState(BackendState::SampledOut);
    send(*backend, {{"n", 1}});
    backend->setState(BackendState::Enabled);
    send(*backend, {{"n", 2}});
    std::multiset<std::int64_t> posted;
    for (const httplib::Request& request : _server.requests())
        for (const Value& event : eventsIn(request.body)) posted.insert(event.dictionary()->integer("n"));
    EXPECT_EQ(posted, (std::multiset<std::int64_t>{1, 2}));
}

}  // namespace
}  // namespace quorvane
